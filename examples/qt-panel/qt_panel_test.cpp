// The Qt panel (offscreen, --watch) against the simulated device, in
// GoogleTest: the four cases of an HMI application's CI. QT_PANEL names the
// program (else on PATH).
#include <hmisvc/testing.h>

#include <nlohmann/json.hpp>

#include <cstdlib>

namespace {

// No display in CI: Qt draws offscreen.
const int offscreen = setenv("QT_QPA_PLATFORM", "offscreen", 0);
const std::string app_path = std::getenv("QT_PANEL") ? std::getenv("QT_PANEL") : "qt-panel";

class QtPanel : public hmisvc::testing::DeviceTest {};

TEST_F(QtPanel, SliderSetsBrightnessOnce)
{
    hmisvc::testing::App app({app_path, "--watch"});
    ASSERT_TRUE(app.expect("ready", 30));  // Qt starts slowly in an emulated guest
    app.send("brightness 10\n");
    device.waitForCall("SetBrightness", "[10]");
    ASSERT_TRUE(app.expect("brightness: 10 of"));
    EXPECT_EQ(nlohmann::json::parse(device.calls({"", "SetBrightness", ""})).size(), 1u);
}

TEST_F(QtPanel, BacklightDownAndBack)
{
    hmisvc::testing::App app({app_path, "--watch"});
    ASSERT_TRUE(app.expect("ready", 30));  // Qt starts slowly in an emulated guest
    device.fail("backlight");
    ASSERT_TRUE(app.expect("backlight: service down"));
    device.heal("backlight");
    EXPECT_TRUE(app.expect("backlight: reconnected"));
}

TEST_F(QtPanel, WifiListFollows)
{
    hmisvc::testing::App app({app_path, "--watch"});
    ASSERT_TRUE(app.expect("wifi: Office-WiFi", 30));
    device.crash("wifiinfo");
    ASSERT_TRUE(app.expect("wifi: unavailable"));
    device.restart("wifiinfo");
    EXPECT_TRUE(app.expect("wifi: Office-WiFi"));
}

TEST_F(QtPanel, BroadcastShown)
{
    hmisvc::testing::App app({app_path, "--watch"});
    ASSERT_TRUE(app.expect("ready", 30));  // Qt starts slowly in an emulated guest
    device.broadcast("hmi.action.show.settings", {{"page", 4}});
    EXPECT_TRUE(app.expect("broadcast: hmi.action.show.settings page=4"));
}

}  // namespace
