// The QML panel against the simulated device, in GoogleTest: the four cases
// of examples/hmi-console, read and steered on the page itself (app.page()),
// with no test code in the application. QML_PANEL names the program (else on
// PATH).
#include <hmisvc/testing.h>

#include <nlohmann/json.hpp>

#include <cstdlib>

namespace {

const std::string app_path = std::getenv("QML_PANEL") ? std::getenv("QML_PANEL") : "qml-panel";

class QmlPanel : public hmisvc::testing::DeviceTest {
protected:
    nlohmann::json state() { return nlohmann::json::parse(device.state()); }
};

TEST_F(QmlPanel, BrightnessSetOnce)
{
    hmisvc::testing::App app({app_path});
    const int max = state()["backlight"]["max"];
    ASSERT_TRUE(app.page().find("brightness").wait("to", max));
    app.page().find("brightness").slide(10);
    device.waitForCall("SetBrightness", "[10]");
    ASSERT_TRUE(app.page().find("brightnessLabel").wait("text", "Brightness 10 of " + std::to_string(max)));
    EXPECT_EQ(nlohmann::json::parse(device.calls({"", "SetBrightness", ""})).size(), 1u);
}

TEST_F(QmlPanel, BacklightDownAndBack)
{
    hmisvc::testing::App app({app_path});
    hmisvc::testing::Item status = app.page().find("backlightStatus");
    ASSERT_TRUE(status.wait("text", "backlight: up"));
    device.fail("backlight");
    ASSERT_TRUE(status.wait("text", "backlight: down (transaction failed)", 10));
    device.heal("backlight");
    EXPECT_TRUE(status.wait("text", "backlight: up", 10));
}

TEST_F(QmlPanel, WifiDownAndBack)
{
    hmisvc::testing::App app({app_path});
    ASSERT_TRUE(app.page().find("networks").wait("count", int(state()["wifi"]["scan"].size())));
    device.crash("wifiinfo");
    ASSERT_TRUE(app.page().find("wifi").wait("status", "down"));
    device.restart("wifiinfo");
    EXPECT_TRUE(app.page().find("wifiStatus").wait("text", "Wi-Fi: up", 10));
}

TEST_F(QmlPanel, BroadcastShown)
{
    hmisvc::testing::App app({app_path});
    ASSERT_TRUE(app.page().find("broadcastsStatus").wait("text", "broadcasts: up"));
    device.broadcast("hmi.action.show.settings", {{"page", 2}});
    EXPECT_TRUE(app.page().find("lastBroadcast").wait("text", "hmi.action.show.settings page=2"));
}

}  // namespace
