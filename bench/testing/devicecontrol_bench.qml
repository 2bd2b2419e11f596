// The time of one DeviceControl verb (Hmisvc.Testing) against the
// simulator: a binder call to its control service on a thread of the verb's
// own while the GUI thread goes on. Run natively or in the guest:
//   hmisvc-run [--guest] qmltestrunner -platform offscreen -import BUILD/qml -input devicecontrol_bench.qml
// (the custom target bench_devicecontrol runs it in the guest).
import QtQuick
import QtTest
import Hmisvc
import Hmisvc.Testing

TestCase {
    name: "DeviceControl"
    DeviceControl { id: device }
    Backlight { id: backlight }

    function initTestCase() { device.reset(); tryCompare(backlight, "status", "up", 30000) }
    function benchmark_mark() { device.mark() }
    function benchmark_set() { device.set("backlight.brightness", 40) }
    function benchmark_failAndHeal() { device.fail("backlight"); device.heal("backlight") }
    function benchmark_state() { device.state() }
    function benchmark_calls() { device.calls({ method: "SetBrightness" }) }
    function benchmark_broadcast() { device.broadcast("hmisvc.bench", { page: 2 }) }
    function benchmark_reset() { device.reset() }
    // A write of the page's and the wait for it (and a mark).
    function benchmark_writeAndWaitForCall() {
        const since = device.mark()
        backlight.setBrightness(40)
        device.waitForCall("SetBrightness", [40], 5, { since: since })
    }
}
