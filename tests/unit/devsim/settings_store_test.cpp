#include "settings_store.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {

using hmisvc::devsim::SettingsStore;

class SettingsFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/devsim-settings-XXXXXX";
        int fd = mkstemp(tmpl);
        ASSERT_GE(fd, 0);
        close(fd);
        path = tmpl;
        std::remove(path.c_str());  // start with no file at all
    }
    void TearDown() override { std::remove(path.c_str()); }

    void write(const std::string &text) { std::ofstream(path) << text; }
    std::string read() const
    {
        std::ostringstream s;
        s << std::ifstream(path).rdbuf();
        return s.str();
    }

    std::string path;
};

TEST(SettingsStore, LongValueParsesWholeDecimal32BitNumbersOnly)
{
    const struct {
        const char *stored;
        int32_t expected;
    } cases[] = {
        {"42", 42},          {"-7", -7},         {"+3", 3},         {"2147483647", 2147483647},
        {"-2147483648", INT32_MIN}, {"2147483648", 7}, {"-2147483649", 7}, {"5x", 7},
        {"", 7},             {"0x10", 7},        {"1.5", 7},        {"9999999999999999999999", 7},
    };
    for (const auto &c : cases) {
        SettingsStore store;
        ASSERT_EQ(store.set("s", "k", c.stored), SettingsStore::kDone) << c.stored;
        EXPECT_EQ(store.get_long("s", "k", 7), c.expected) << c.stored;
    }
    SettingsStore empty;
    EXPECT_EQ(empty.get_long("s", "missing", -1), -1);
}

TEST(SettingsStore, SetGetDeleteAndLongValuesAsText)
{
    SettingsStore store;
    EXPECT_EQ(store.get("net", "host", "dflt"), "dflt");
    EXPECT_EQ(store.set_long("net", "port", -2), SettingsStore::kDone);
    EXPECT_EQ(store.get("net", "port", ""), "-2");
    EXPECT_EQ(store.set("net", "host", "plc-1"), SettingsStore::kDone);
    EXPECT_EQ(store.get("net", "host", "dflt"), "plc-1");

    EXPECT_EQ(store.remove("net", "host"), SettingsStore::kDone);
    EXPECT_EQ(store.remove("net", "host"), SettingsStore::kNoSuchSetting);
    EXPECT_EQ(store.remove("nowhere", "host"), SettingsStore::kNoSuchSetting);
    EXPECT_EQ(store.remove("net", "port"), SettingsStore::kDone);
    EXPECT_TRUE(store.sections().empty()) << "an emptied section is dropped";
}

// storable() must say exactly which settings the INI file gives back
// unchanged: every case is written raw, read back with the parser, and
// compared.
TEST_F(SettingsFile, StorableIsExactlyWhatTheFileGivesBack)
{
    const std::string line199(199 - 2, 'v');  // "k=" + 197
    const struct {
        std::string section, key, value;
        bool storable;
    } cases[] = {
        {"s", "k", "v", true},
        {"", "top", "no section header", true},
        {"s", "", "empty key", true},
        {"s", "k", "", true},
        {"s", "a b", "inner  blanks", true},
        {"s", "k", "a=b:c", true},
        {"s", "k", "x;y", true},
        {"s", "k", ";lead", true},
        {"s", "k", "#hash", true},
        {"[s", "k", "v", true},
        {"s", "k", "Gr\xc3\xbc\xc3\x9f" "e", true},
        {std::string(49, 's'), "k", "v", true},
        {"s", "k", line199, true},
        {"s", "k", line199 + "v", false},
        {std::string(50, 's'), "k", "v", false},
        {"s", "k", " lead", false},
        {"s", "k", "trail ", false},
        {"s", "k", "a ;comment", false},
        {"s", "k", "two\nlines", false},
        {"s", "k", "cr\r", false},
        {"s", "a=b", "v", false},
        {"s", "a:b", "v", false},
        {"s", ";k", "v", false},
        {"s", "#k", "v", false},
        {"s", "[k", "v", false},
        {"s]", "k", "v", false},
        {" s ", "k", "v", true},
        {"s", " k", "v", false},
        {"s", "k ", "v", false},
        {"s ;x", "k", "v", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("[" + c.section + "] " + c.key + "=" + c.value);
        EXPECT_EQ(SettingsStore::storable(c.section, c.key, c.value), c.storable);

        write((c.section.empty() ? "" : "[" + c.section + "]\n") + c.key + "=" + c.value + "\n");
        SettingsStore store(path);
        bool back = store.load().empty() && store.sections().size() == 1 &&
                    store.sections().begin()->second.size() == 1 &&
                    store.get(c.section, c.key, "\x01missing") == c.value;
        EXPECT_EQ(back, c.storable);

        SettingsStore memory;
        EXPECT_EQ(memory.set(c.section, c.key, c.value),
                  c.storable ? SettingsStore::kDone : SettingsStore::kNotStorable);
        EXPECT_EQ(memory.sections().empty(), !c.storable) << "a refused setting is not kept";
    }
}

TEST_F(SettingsFile, SaveThenLoadGivesTheSameStore)
{
    SettingsStore store(path);
    ASSERT_EQ(store.load(), "") << "no file yet is not an error";
    store.set("", "top", "1");
    store.set("net", "host", "a=b;c");
    store.set("net", "port", "502");
    store.set("ui", "title", "Line 3: press");
    ASSERT_EQ(store.save(), SettingsStore::kDone);
    EXPECT_EQ(read(), "top=1\n[net]\nhost=a=b;c\nport=502\n[ui]\ntitle=Line 3: press\n");

    SettingsStore again(path);
    ASSERT_EQ(again.load(), "");
    EXPECT_EQ(again.sections(), store.sections());
}

TEST_F(SettingsFile, LoadReadsCommentsAndReportsTheBadLine)
{
    write("; comment\n# another\n\n[a]\nx = 1\nx=2\n[b]\ny: yes\n");
    SettingsStore store(path);
    ASSERT_EQ(store.load(), "");
    EXPECT_EQ(store.get("a", "x", ""), "2") << "the last of a repeated key holds";
    EXPECT_EQ(store.get("b", "y", ""), "yes");

    // Refused whole, never read in part: a line the parser would split, a
    // continued value, a path that is not a regular file.
    const struct {
        std::string text, error;
    } refused[] = {
        {"[a]\nx=1\nnot a setting\n", ":3: not an INI line"},
        {"[a]\nx=" + std::string(300, 'v') + "tail=injected\n", ":2: line longer than 199 characters"},
        {"[a]\nx=1\n  more\n", ":3: indented line (a continued value, which the settings file cannot hold)"},
    };
    for (const auto &c : refused) {
        write(c.text);
        SettingsStore broken(path);
        broken.set("keep", "me", "1");
        EXPECT_EQ(broken.load(), path + c.error);
        EXPECT_EQ(broken.get("keep", "me", ""), "1") << "a failed load keeps what was there";
    }
    for (const char *odd : {"/dev/zero", "/tmp"})
        EXPECT_EQ(SettingsStore(odd).load(), std::string(odd) + ": not a regular file");
}

TEST(SettingsStore, SaveFailsWithoutAWritableFile)
{
    SettingsStore memory;
    memory.set("s", "k", "v");
    EXPECT_EQ(memory.save(), SettingsStore::kNoFile);

    SettingsStore nowhere("/nonexistent-dir/settings.ini");
    nowhere.set("s", "k", "v");
    EXPECT_EQ(nowhere.save(), SettingsStore::kWriteFailed);
}

}  // namespace
