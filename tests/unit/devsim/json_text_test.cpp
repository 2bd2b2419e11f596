// Bytes through JSON documents and the limits JSON input is read under; then
// the simulator's own documents and traces carrying such bytes.
#include "control.h"
#include "json_text.h"
#include "settled_dump.h"
#include "state.h"

#include "../../common/request_bytes.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

using namespace hmisvc::devsim;
using namespace hmisvc::tools;
using namespace std::string_literals;

TEST(JsonText, AnyBytesTravelAsValidUtf8AndComeBackTheSame)
{
    const struct {
        std::string bytes, text;  // text: the JSON string's content, UTF-8
    } cases[] = {
        {"", ""},
        {"plain", "plain"},
        {"caf\xc3\xa9", "caf\xc3\xa9"},                     // UTF-8 stays as it is
        {"\xf0\x9f\x99\x82", "\xf0\x9f\x99\x82"},           // four bytes
        {"caf\xe9", "\0caf\xc3\xa9"s},                      // Latin-1
        {"\xff\x80", "\0\xc3\xbf\xc2\x80"s},
        {"\xc3", "\0\xc3\x83"s},                            // a sequence cut short
        {"\xc0\xaf", "\0\xc3\x80\xc2\xaf"s},                // overlong
        {"\xed\xa0\x80", "\0\xc3\xad\xc2\xa0\xc2\x80"s},    // a surrogate
        {"\xf4\x90\x80\x80", "\0\xc3\xb4\xc2\x90\xc2\x80\xc2\x80"s},  // above U+10FFFF
        {"\0x"s, "\0\0x"s},                                 // a leading NUL is marked too
        {"a\0b"s, "a\0b"s},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(printable(c.bytes));
        EXPECT_EQ(is_utf8(c.bytes), c.text == c.bytes || c.bytes[0] == '\0');
        EXPECT_EQ(to_json_text(c.bytes), c.text);
        // As a value and as a key, through printed JSON and back.
        Json doc = {{to_json_text(c.bytes), to_json_text(c.bytes)}};
        Json again = Json::parse(doc.dump());
        std::string value, key;
        ASSERT_TRUE(from_json_text(again.begin().value().get<std::string>(), value));
        ASSERT_TRUE(from_json_text(again.begin().key(), key));
        EXPECT_EQ(value, c.bytes);
        EXPECT_EQ(key, c.bytes);
    }
    std::string kept = "kept";
    EXPECT_FALSE(from_json_text("\0\xe2\x82\xac"s, kept));  // U+20AC is no byte
    EXPECT_EQ(kept, "kept");
    EXPECT_EQ(printable("caf\xe9"), "caf\xc3\xa9");
}

TEST(JsonText, InputBeyondTheLimitsIsRefusedNamingThem)
{
    auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    const struct {
        std::string text, why;
    } cases[] = {
        {nested(kMaxJsonDepth), ""},
        {nested(kMaxJsonDepth + 1), "nested deeper than 64 levels (the most JSON input may take)"},
        {nested(100000), "nested deeper than 64 levels (the most JSON input may take)"},
        {std::string(100000, '['), "not JSON"},
        {"\"" + std::string(100, '[') + "\"", ""},  // inside a string: text
        {"[\"\\\"[\"]", ""},
        {"\"" + std::string(kMaxJsonBytes, 'x') + "\"",
         "larger than 524288 bytes (the most JSON input may take)"},
        {"{\"a\": caf\xe9}", "not JSON"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text.substr(0, 40));
        Json out;
        EXPECT_EQ(parse_json(c.text, out), c.why);
    }
    EXPECT_EQ(json_depth("{\"a\": [1, {\"b\": \"]]]\"}]}"), 3u);
}

struct Bytes : ::testing::Test {
    Device device;
    Simulator simulator{device};
    Publisher publisher{nullptr};  // never asked to publish here
    Control control{device, simulator, publisher};
};

TEST_F(Bytes, Latin1SettingsSurviveSetDumpAndLoad)
{
    ASSERT_EQ(control.set("settings.ui.lang", "caf\xe9").code, 0);
    ASSERT_EQ(control.set("settings.caf\xe9.k\xff", "\"\\u0000\\u00e9t\\u00e9\"").code, 0);
    EXPECT_EQ(device.settings.get("ui", "lang", ""), "caf\xe9");
    EXPECT_EQ(device.settings.get("caf\xe9", "k\xff", ""), "\xe9t\xe9");
    std::string dump = control.dump().text;
    EXPECT_TRUE(is_utf8(dump));
    EXPECT_NE(dump.find(R"("lang": "\u0000café")"), std::string::npos) << dump;

    Device other;
    Simulator sim{other};
    Control second{other, sim, publisher};
    ASSERT_EQ(second.load_state(dump).code, 0);
    EXPECT_EQ(other.settings.sections(), device.settings.sections());
    EXPECT_EQ(second.dump().text, dump);
    EXPECT_EQ(second.load_state(R"({"settings": {"ui": {"lang": "\u0000\u20ac"}}})").code, 2);
}

TEST_F(Bytes, ValuesTheWireOrTheClockCannotCarryAreRefused)
{
    std::string big_scan = "[";
    for (int i = 0; i < 200; ++i)
        big_scan += (i ? "," : "") + R"({"ssid": "network-)"s + std::to_string(i) + R"(", "signal_dbm": -50})";
    big_scan += "]";
    std::string long_name = "\"" + std::string(2000, 'n') + "\"";
    const struct {
        const char *key;
        std::string value, why;
    } cases[] = {
        {"date.offset_ms", "9223372036854775807", "date.offset_ms: the clock would answer a date outside the years 1900 to 9999"},
        {"date.offset_ms", "-9223372036854775808", "date.offset_ms: the clock would answer a date outside the years 1900 to 9999"},
        {"date.offset_ms", "-8000000000000000000", "date.offset_ms: the clock would answer a date outside the years 1900 to 9999"},
        {"date.offset_ms", "300000000000000", "date.offset_ms: the clock would answer a date outside the years 1900 to 9999"},
        {"wifi.scan", big_scan, "wifiinfo: the answer to GetWifilist would not fit the 4096 bytes its proxy takes replies in"},
        {"system.hmi_name", long_name, "system: the answer to GetHmiName would not fit the 1024 bytes its proxy takes replies in"},
        {"system.versions", R"({"big": )" + long_name + "}", "system: the answer to GetVersion would not fit the 1024 bytes its proxy takes replies in"},
        {"backlight.brightness", std::string(100, '[') + std::string(100, ']'),
         "backlight.brightness: the value is nested deeper than 64 levels (the most JSON input may take)"},
    };
    const Json before = settled_dump(control);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.key);
        ControlResult r = control.set(c.key, c.value);
        EXPECT_EQ(r.code, ControlResult::kRefused);
        EXPECT_EQ(r.text, c.why);
    }
    EXPECT_EQ(settled_dump(control), before);
    EXPECT_EQ(control.set("date.offset_ms", "-3600000").code, 0);
}

TEST_F(Bytes, SettingsStopWhereADumpWouldNoLongerFit)
{
    // Through the settings service, as applications store them; control
    // characters take six bytes each in JSON.
    std::string value(150, '\x01');
    int32_t answer = SettingsStore::kDone;
    int stored = 0;
    while ((answer = device.set_setting("s", "key" + std::to_string(stored), value)) == SettingsStore::kDone)
        ++stored;
    EXPECT_EQ(answer, SettingsStore::kTooLarge);
    EXPECT_GT(stored, 200);
    EXPECT_EQ(device.settings.sections().at("s").size(), static_cast<std::size_t>(stored));
    EXPECT_EQ(undumpable(device), "");
    simulator.add_extra(&control.service());
    EXPECT_EQ(control.dump().code, 0);
    // An existing setting may still change.
    EXPECT_EQ(device.set_setting("s", "key0", "short"), SettingsStore::kDone);
}

TEST(Trace, UnknownCodesLatin1ArgumentsAndUndoneChangesAreTraced)
{
    std::FILE *trace = std::tmpfile();
    ASSERT_NE(trace, nullptr);
    Device device;
    {
        Simulator sim{device, nullptr, trace};
        auto call = [&](const char *service, uint32_t code, const RequestBytes &bytes) {
            std::vector<uint32_t> in(bytes.data.size() / 4 + 1);
            std::memcpy(in.data(), bytes.data.data(), bytes.data.size());
            binder_transaction_data txn{};
            txn.target.ptr = object_word(sim.find(service));
            txn.code = code;
            txn.data_size = bytes.data.size();
            txn.data.ptr.buffer = reinterpret_cast<binder_uintptr_t>(in.data());
            binder_io msg, reply;
            bio_init_from_txn(&msg, &txn);
            std::vector<uint32_t> out(1024);
            bio_init(&reply, out.data(), 4096, 4);
            return sim.handle(txn, msg, reply);
        };
        EXPECT_EQ(call("backlight", 99, RequestBytes().word(0)), kUnknownMethod);
        EXPECT_EQ(call("system", 1, RequestBytes().word(0)), kUnknownMethod);  // a code left unused
        EXPECT_EQ(call("settings", 2, RequestBytes().word(0).str("ui").str("lang").str("caf\xe9")), kOk);
        EXPECT_EQ(call("settings", 0, RequestBytes().word(0).str("ui").str("lang").str("\xff")), kOk);
        // A record the proxy's mapping could not take back is not kept.
        NetInfo big = device.network.ethernet();
        big.text1 = std::string(2000, 'a');
        EXPECT_EQ(call("ethinfo", 1, RequestBytes().word(0).mem(big.toString())), kReplyTooLarge);
        EXPECT_EQ(device.network.ethernet().text1, "192.168.1.120");
    }  // the trace is written out
    std::rewind(trace);
    std::string text;
    char buf[4096];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, trace)) > 0;)
        text.append(buf, n);
    std::fclose(trace);
    EXPECT_TRUE(is_utf8(text));
    for (const char *want : {R"("service":"backlight","method":null,"code":99,"status":-38,"error":"unknown code")",
                             R"("method":null,"code":1,"status":-38)",
                             R"("args":["ui","lang","\u0000café"],"reply":0)",
                             R"("args":["ui","lang","\u0000ÿ"],"reply":"\u0000café")",
                             R"("error":"change undone: ethinfo: the answer to GetEthinfo would not fit the 1024 bytes its proxy takes replies in")"})
        EXPECT_NE(text.find(want), std::string::npos) << want << "\n" << text;
}

}  // namespace
