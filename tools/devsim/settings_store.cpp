#include "settings_store.h"

#include <ini.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string_view>

namespace hmisvc::devsim {

namespace {

bool blank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// What the INI parser reads differently from how it was written: control
// characters that end a line, and ';' after a blank (an inline comment).
bool one_line(const std::string &s)
{
    for (std::size_t i = 0; i < s.size(); ++i) {
        char c = s[i];
        if (c == '\0' || c == '\n' || c == '\r' || (c == ';' && i > 0 && blank(s[i - 1])))
            return false;
    }
    return true;
}

// Keys and values lose their outer blanks; section names keep them.
bool unpadded(const std::string &s) { return s.empty() || (!blank(s.front()) && !blank(s.back())); }

// The parser's limits: section names are cut at 49 bytes, lines read in
// pieces of 199 characters.
constexpr std::size_t kMaxSection = 49;
constexpr std::size_t kMaxLine = 199;

int on_entry(void *user, const char *section, const char *key, const char *value)
{
    auto *sections = static_cast<SettingsStore::Sections *>(user);
    (*sections)[section][key] = value;  // a repeated key: the last one holds
    return 1;
}

}  // namespace

SettingsStore::SettingsStore(std::string file) : file_(std::move(file)) {}

std::string SettingsStore::load()
{
    if (file_.empty())
        return {};
    struct stat st{};
    if (stat(file_.c_str(), &st) != 0)
        return errno == ENOENT ? std::string() : file_ + ": " + std::strerror(errno);  // nothing saved yet
    if (!S_ISREG(st.st_mode))
        return file_ + ": not a regular file";
    std::ifstream in(file_, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in && !in.eof())
        return file_ + ": cannot read";
    // The parser would split a longer line in two and take an indented
    // line as a second value of the key before it; refuse both rather
    // than keep something else than the file says.
    std::size_t start = 0;
    for (int line = 1; start < text.size(); ++line) {
        std::size_t end = std::min(text.find('\n', start), text.size());
        std::string_view l(text.data() + start, end - start);
        std::size_t first = l.find_first_not_of(" \t\r");
        std::string where = file_ + ":" + std::to_string(line) + ": ";
        if (l.size() > kMaxLine)
            return where + "line longer than " + std::to_string(kMaxLine) + " characters";
        if (first > 0 && first != std::string_view::npos && l[first] != ';' && l[first] != '#')
            return where + "indented line (a continued value, which the settings file cannot hold)";
        if (l.find('\0') != std::string_view::npos)
            return where + "NUL character";
        start = end + 1;
    }
    Sections loaded;
    int line = ini_parse_string(text.c_str(), on_entry, &loaded);
    if (line != 0)
        return file_ + ":" + std::to_string(line) + ": not an INI line";
    sections_ = std::move(loaded);
    return {};
}

std::string SettingsStore::get(const std::string &section, const std::string &key,
                               const std::string &fallback) const
{
    auto s = sections_.find(section);
    if (s == sections_.end())
        return fallback;
    auto k = s->second.find(key);
    return k == s->second.end() ? fallback : k->second;
}

int32_t SettingsStore::get_long(const std::string &section, const std::string &key,
                                int32_t fallback) const
{
    std::string text = get(section, key, {});
    if (text.empty())
        return fallback;
    errno = 0;
    char *end = nullptr;
    long long n = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || n < INT32_MIN || n > INT32_MAX)
        return fallback;
    return static_cast<int32_t>(n);
}

int32_t SettingsStore::set(const std::string &section, const std::string &key, const std::string &value)
{
    if (!storable(section, key, value))
        return kNotStorable;
    sections_[section][key] = value;
    return kDone;
}

int32_t SettingsStore::set_long(const std::string &section, const std::string &key, int32_t value)
{
    return set(section, key, std::to_string(value));
}

int32_t SettingsStore::remove(const std::string &section, const std::string &key)
{
    auto s = sections_.find(section);
    if (s == sections_.end() || s->second.erase(key) == 0)
        return kNoSuchSetting;
    if (s->second.empty())
        sections_.erase(s);
    return kDone;
}

int32_t SettingsStore::save() const
{
    if (file_.empty())
        return kNoFile;
    // Written aside and renamed over, so a failed write never costs the
    // settings saved before.
    std::string temp = file_ + ".tmp";
    {
        std::ofstream out(temp, std::ios::trunc);
        // Keys of the unnamed section come first, before any header; the
        // map's order puts them there.
        for (const auto &[section, keys] : sections_) {
            if (!section.empty())
                out << '[' << section << "]\n";
            for (const auto &[key, value] : keys)
                out << key << '=' << value << '\n';
        }
        out.flush();
        if (!out) {
            std::remove(temp.c_str());
            return kWriteFailed;
        }
    }
    if (std::rename(temp.c_str(), file_.c_str()) != 0) {
        std::remove(temp.c_str());
        return kWriteFailed;
    }
    return kDone;
}

bool SettingsStore::storable(const std::string &section, const std::string &key,
                             const std::string &value)
{
    return one_line(section) && one_line(key) && one_line(value) && unpadded(key) && unpadded(value) &&
           section.find(']') == std::string::npos && section.size() <= kMaxSection &&
           key.find_first_of("=:") == std::string::npos &&
           (key.empty() || std::strchr(";#[", key.front()) == nullptr) &&
           key.size() + 1 + value.size() <= kMaxLine;
}

}  // namespace hmisvc::devsim
