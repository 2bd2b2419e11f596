// The console HMI against the simulated device, in GoogleTest: the four cases
// of an HMI application's CI. HMI_CONSOLE names the program (else on PATH).
#include <hmisvc/testing.h>

#include <nlohmann/json.hpp>

#include <cstdlib>

namespace {

const std::string app_path = std::getenv("HMI_CONSOLE") ? std::getenv("HMI_CONSOLE") : "hmi-console";

class HmiConsole : public hmisvc::testing::DeviceTest {};

TEST_F(HmiConsole, BrightnessSetOnce)
{
    hmisvc::testing::App app({app_path});
    ASSERT_TRUE(app.expect("ready"));
    app.send("brightness 10\n");
    device.waitForCall("SetBrightness", "[10]");
    ASSERT_TRUE(app.expect("brightness 10"));
    EXPECT_EQ(nlohmann::json::parse(device.calls({"", "SetBrightness", ""})).size(), 1u);
}

TEST_F(HmiConsole, BacklightDownAndBack)
{
    hmisvc::testing::App app({app_path});
    ASSERT_TRUE(app.expect("ready"));
    device.fail("backlight");
    ASSERT_TRUE(app.expect("backlight: service down"));
    device.heal("backlight");
    EXPECT_TRUE(app.expect("backlight: reconnected"));
}

TEST_F(HmiConsole, WifiListFollows)
{
    hmisvc::testing::App app({app_path});
    ASSERT_TRUE(app.expect("wifi: Office-WiFi"));
    device.crash("wifiinfo");
    ASSERT_TRUE(app.expect("wifi: none"));
    device.restart("wifiinfo");
    EXPECT_TRUE(app.expect("wifi: Office-WiFi"));
}

TEST_F(HmiConsole, BroadcastShown)
{
    hmisvc::testing::App app({app_path});
    ASSERT_TRUE(app.expect("ready"));
    device.broadcast("hmi.console.message", {}, {{"text", "shift ends at 6"}});
    EXPECT_TRUE(app.expect("message: shift ends at 6"));
}

}  // namespace
