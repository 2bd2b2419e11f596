#include "control.h"
#include "settled_dump.h"
#include "state.h"

#include <gtest/gtest.h>

namespace {

using namespace hmisvc::devsim;

struct Steered : ::testing::Test {
    Device device;
    Simulator simulator{device};
    hmisvc::tools::Publisher publisher{nullptr};  // never asked to publish here
    Control control{device, simulator, publisher};
};

TEST_F(Steered, SetChangesOneValueOrRefusesAndChangesNothing)
{
    const struct {
        const char *key, *value;
        int code;
    } cases[] = {
        {"backlight.brightness", "42", 0},
        {"system.hmi_name", "Line 3", 0},  // not JSON: taken as a string
        {"settings.panel.title.long", "\"a b\"", 0},
        {"wifi.connected", "Guest", 0},
        {"wifi.scan", R"([{"ssid":"Only","signal_dbm":-40}])", 2},  // leaves out the joined one
        {"wifi.connected", "\"\"", 0},
        {"wifi.scan", R"([{"ssid":"Only","signal_dbm":-40}])", 0},
        {"backlight.brightness", "\"high\"", 2},
        {"backlight.brightness", "1.5", 2},
        {"backlight.brightness", "true", 2},
        {"backlight.brightness", "4294967296", 2},
        {"backlight.brightness", "101", 2},
        {"backlight.nope", "1", 2},
        {"wifi.current.ssid", "\"x\"", 2},
        {"wifi.connected", "Nowhere", 2},
        {"wifi.scan", R"([{"ssid":"x","channel":1}])", 2},
        {"settings.panel.k", "\"two\\nlines\"", 2},
        {"beep.last", "[1]", 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.key) + " " + c.value);
        const Json before = settled_dump(control);
        ControlResult r = control.set(c.key, c.value);
        EXPECT_EQ(r.code, c.code) << r.text;
        if (c.code != 0) {
            EXPECT_EQ(settled_dump(control), before);
        }
    }
    EXPECT_EQ(device.settings.get("panel", "title.long", ""), "a b");
    EXPECT_EQ(device.system.hmi_name, "Line 3");
    ASSERT_EQ(device.network.scan().size(), 1u);
    EXPECT_EQ(device.network.wifi().text6, "disconnected");
}

TEST_F(Steered, ADumpLoadedElsewhereGivesTheSameDump)
{
    control.set("backlight.brightness", "7");
    control.set("wifi.connected", "Workshop");
    control.set("date.offset_ms", "-3600000");
    std::string dump = control.dump().text;

    Device other;
    StateJson::load(other, Json::parse(dump));
    Json loaded = StateJson::dump(other);
    loaded["services"] = Json::parse(dump)["services"];  // publishing is the running simulator's
    EXPECT_EQ(loaded.dump(2), dump);
    EXPECT_EQ(other.network.wifi().text1, "Workshop");
    EXPECT_THROW(StateJson::load(other, Json::parse(R"({"lights":{}})")), JsonError);
}

TEST_F(Steered, FailFindsServicesThroughTheMethodTable)
{
    EXPECT_EQ(control.fail("backlight", {}).code, 0);
    EXPECT_EQ(control.fail("GetWifilist", {}).text, "wifiinfo");
    EXPECT_EQ(control.fail("nosuch", {}).code, 2);
    EXPECT_EQ(control.fail("beep", {0, 0, 0}).code, 2) << "zero calls";
    EXPECT_EQ(control.heal("backlight").code, 0);
}

TEST_F(Steered, LoadedServicesSectionFailsServicesOrIsRefusedWhole)
{
    EXPECT_EQ(control.load_state(R"({"services":{"backlight":"failed"}})").code, 0);
    EXPECT_EQ(simulator.faults().count("backlight"), 1u);
    for (const char *bad : {R"({"services":{"nosuch":"absent"}})", R"({"services":{"vpn":"broken"}})",
                            R"({"services":{"vpn":"failed"},"backlight":{"brightness":"x"}})"})
        EXPECT_EQ(control.load_state(bad).code, 2) << bad;
    EXPECT_EQ(simulator.faults().count("vpn"), 0u);
}

// Unbounded queues once took 92 MB and then made every dump too large.
TEST_F(Steered, ReplyQueuesAreBoundedInCountAndBytesAndRefusedWhole)
{
    const std::string text = "\"" + std::string(1000, 'x') + "\"";  // 1,002 bytes
    control.remember_start({});
    EXPECT_EQ(control.reply("GetBrightness", std::vector<std::string>(Simulator::kMaxAnswers, "5")).code, 0);
    EXPECT_EQ(control.reply("GetHmiName", {"x"}).code, 1);
    EXPECT_EQ(control.reply("GetBrightness", {}).code, 0);                              // emptied
    EXPECT_EQ(control.reply("GetHmiName", std::vector<std::string>(60, text)).code, 0);
    EXPECT_EQ(control.reply("GetHmiName", std::vector<std::string>(6, text)).code, 1);  // past 64 KiB: none
    EXPECT_EQ(control.reply("GetHmiName", std::vector<std::string>(5, text)).code, 0);
    EXPECT_EQ(settled_dump(control)["replies"]["system.GetHmiName"].size(), 65u);
    EXPECT_EQ(control.reset().code, 0);
    EXPECT_EQ(control.reply("GetHmiName", std::vector<std::string>(65, text)).code, 0);
}

TEST_F(Steered, ADumpLargerThanTheReplyAreaIsAnErrorNotCut)
{
    simulator.add_extra(&control.service());
    for (std::size_t area : {std::size_t{64}, std::size_t{64 * 1024}}) {
        uint32_t request = 0;  // dump: the leading word alone
        binder_transaction_data txn{};
        txn.target.ptr = object_word(&control.service());
        binder_io msg{}, reply;
        msg.data_start = msg.cursor = reinterpret_cast<char *>(&request);
        msg.data_left = sizeof request;
        std::vector<char> out(area);
        bio_init(&reply, out.data(), static_cast<uint32_t>(area), 4);
        EXPECT_EQ(simulator.handle(txn, msg, reply), area == 64 ? kReplyTooLarge : kOk);
    }
}

}  // namespace
