// The panel against the simulated device in Qt Quick Test: the four cases of
// the console example, Main.qml loaded as it is, steered by Hmisvc.Testing.
//
//   hmisvc-run qmltestrunner -platform offscreen -input tst_qml_panel.qml
import QtQuick
import QtTest
import Hmisvc.Testing

TestCase {
    name: "qml_panel"
    DeviceControl { id: device }
    property var page

    function init() {
        device.reset()
        page = createTemporaryObject(Qt.createComponent(Qt.resolvedUrl("Main.qml")), null)
        tryCompare(find("backlightStatus"), "text", "backlight: up", 20000)
    }
    function find(name) { return findChild(page.contentItem, name) }

    function test_brightness_set_once() {
        const slider = find("brightness")
        slider.value = 10; slider.moved()
        device.waitForCall("SetBrightness", [10])
        compare(device.calls({method: "SetBrightness"}).map(c => c.args), [[10]])
    }

    function test_backlight_down_and_back() {
        device.fail("backlight")
        tryVerify(() => find("backlightStatus").text.startsWith("backlight: down"), 20000)
        device.heal("backlight")
        tryCompare(find("backlightStatus"), "text", "backlight: up", 20000)
    }

    // The list keeps the last answer while the service is down; the status
    // line says it.
    function test_wifi_list_follows() {
        const status = find("wifiStatus"), seen = []
        status.textChanged.connect(() => seen.push(status.text))
        device.play({steps: [{at: 1, crash: "wifiinfo"}, {at: 3, restart: "wifiinfo"}]})
        tryVerify(() => seen.some(t => t.startsWith("Wi-Fi: down")) && status.text === "Wi-Fi: up", 20000)
        verify(find("networks").count > 0)
    }

    function test_broadcast_shown() {
        tryCompare(find("broadcastsStatus"), "text", "broadcasts: up", 20000)
        device.broadcast("hmi.action.show.settings", {page: 2})
        tryCompare(find("lastBroadcast"), "text", "hmi.action.show.settings page=2", 20000)
    }
}
