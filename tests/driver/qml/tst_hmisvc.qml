// The module's types against the simulated device: values in, writes out,
// a failing service, broadcasts, and a stopped service while the GUI
// thread goes on.
import QtQuick
import QtQuick.Controls
import QtTest
import Hmisvc

TestCase {
    id: test
    name: "Hmisvc"
    property var lastBroadcast: null

    Backlight { id: backlight }
    // As a page binds it; increase() moves it as a finger does, keeping the binding.
    Slider { id: slider; to: Math.max(backlight.maximum, 1); stepSize: 1; value: backlight.brightness }
    SignalSpy { id: written; target: backlight; signalName: "written" }
    Backlight { id: polled; refreshInterval: 100 }
    Beeper { id: beeper }
    Settings { id: setting; section: "qmltest"; key: "colour" }
    Wifi { id: wifi }
    DeviceInfo { id: device }
    Broadcasts {
        id: broadcasts
        actions: ["hmisvc.test.qml"]
        onReceived: (action, ints, strings) => test.lastBroadcast = { action: action, ints: ints, strings: strings }
    }
    Component { id: slowBacklight; Backlight { timeLimit: 10000 } }
    Component { id: pollingBacklight; Backlight { refreshInterval: 100 } }
    property int pagesGone: 0
    Component {
        id: page
        Item {
            property alias backlight: light
            Backlight { id: light; timeLimit: 300 }
            DateTime { timeLimit: 300 }
            DeviceInfo { timeLimit: 300 }
            Component.onDestruction: ++test.pagesGone
        }
    }

    function initTestCase() {
        tryCompare(backlight, "status", "up", 20000)
        tryVerify(() => backlight.maximum > 0, 20000)
    }

    function test_a_deviceValueReachesTheBoundProperty() {
        verify(sim.run(["set", "backlight.brightness", "42"]) !== null)
        backlight.refresh()
        tryCompare(backlight, "brightness", 42, 20000)
        compare(backlight.lastError, "")
        tryCompare(device, "hmiName", sim.value("system.hmi_name"), 20000)
        wifi.refresh()
        tryVerify(() => wifi.networks.rowCount() === sim.value("wifi.scan").length, 20000)
    }

    function test_b_writes() {
        // Beeps are counted: one beep, one count.
        const before = sim.value("beep.count")
        beeper.beep(50, 1)
        tryVerify(() => sim.value("beep.count") === before + 1, 20000)
        backlight.refresh() // one more round trip through the same kind of handle
        tryCompare(backlight, "brightness", sim.value("backlight.brightness"), 20000)
        compare(sim.value("beep.count"), before + 1)

        backlight.setBrightness(7)
        tryCompare(backlight, "brightness", 7, 20000)
        compare(sim.value("backlight.brightness"), 7)

        setting.value = "blue"
        tryCompare(setting, "value", "blue", 20000)
        compare(sim.value("settings.qmltest.colour"), "blue")
    }

    function test_c_badWritesLeaveTheProperty_data() {
        return [
            { tag: "above the maximum", level: () => backlight.maximum + 1 },
            { tag: "negative", level: () => -1 },
        ]
    }
    function test_c_badWritesLeaveTheProperty(data) {
        const before = backlight.brightness
        backlight.setBrightness(data.level())
        verify(backlight.lastError.indexOf("out of range") >= 0, backlight.lastError)
        compare(backlight.brightness, before)
        compare(sim.value("backlight.brightness"), before)
    }

    function test_c_refusedWriteReportsAndTheSliderGoesBack() {
        verify(sim.run(["set", "backlight.brightness", "10"]) !== null)
        backlight.refresh()
        tryCompare(slider, "value", 10, 20000)
        compare(backlight.ready, true)
        verify(sim.run(["set", "backlight.locked", "true"]) !== null)
        written.clear()
        slider.increase()
        compare(slider.value, 11)
        backlight.setBrightness(slider.value)
        tryCompare(written, "count", 1, 20000)
        verify(sim.run(["set", "backlight.locked", "false"]) !== null)
        compare(Array.from(written.signalArguments[0]), ["setBrightness", false, "refused"])
        compare(backlight.lastError, "refused")
        compare(slider.value, 10)
        compare(sim.value("backlight.brightness"), 10)

        slider.increase()
        backlight.setBrightness(slider.value)
        tryCompare(written, "count", 2, 20000)
        compare(Array.from(written.signalArguments[1]), ["setBrightness", true, ""])
        compare(backlight.brightness, 11)
        compare(slider.value, 11)
    }

    function test_d_unknownSettingKey() {
        setting.key = "no-such-key"
        tryVerify(() => setting.lastError.indexOf("no such setting") === 0, 20000)
        compare(setting.value, "blue")
        setting.key = "colour"
    }

    // No polling: the death comes through the driver, the return by looking again.
    function test_e_crashedServiceIsFollowedWithoutPolling() {
        tryCompare(backlight, "ready", true, 20000)
        verify(sim.run(["crash", "backlight"]) !== null)
        tryCompare(backlight, "status", "down", 20000)
        compare(backlight.ready, false)
        verify(sim.run(["restart", "backlight"]) !== null)
        tryCompare(backlight, "status", "up", 20000)
        tryCompare(backlight, "ready", true, 20000)
    }

    function test_e_failingServiceGoesDownAndComesBack() {
        tryCompare(polled, "status", "up", 20000)
        tryCompare(polled, "ready", true, 20000)
        verify(sim.run(["fail", "backlight"]) !== null)
        tryCompare(polled, "status", "down", 20000)
        compare(polled.ready, false)
        verify(polled.lastError !== "")
        verify(sim.run(["heal", "backlight"]) !== null)
        tryCompare(polled, "status", "up", 20000) // on its own: refreshInterval
        tryCompare(polled, "ready", true, 20000)
    }

    function test_e_restartedServiceIsFollowed() {
        tryCompare(polled, "status", "up", 20000)
        sim.kill()
        tryCompare(polled, "status", "down", 20000)
        verify(sim.start())
        tryCompare(polled, "status", "up", 30000)
        tryCompare(polled, "brightness", sim.value("backlight.brightness"), 20000)
    }

    function test_e_serviceNotThereYetComesUpOnItsOwn() {
        verify(sim.run(["unpublish", "backlight"]) !== null)
        const late = createTemporaryObject(pollingBacklight, test)
        tryCompare(late, "status", "down", 20000)
        verify(late.lastError !== "")
        verify(sim.run(["publish", "backlight"]) !== null)
        tryCompare(late, "status", "up", 20000)
        tryCompare(late, "brightness", sim.value("backlight.brightness"), 20000)
    }

    function test_f_broadcastReachesTheHandler() {
        tryCompare(broadcasts, "receiving", true, 30000)
        broadcasts.send("hmisvc.test.qml", { page: 3 }, { from: "qml" })
        tryVerify(() => test.lastBroadcast !== null, 20000)
        compare(test.lastBroadcast.action, "hmisvc.test.qml")
        compare(test.lastBroadcast.ints.page, 3)
        compare(test.lastBroadcast.strings.from, "qml")
    }

    // Two rounds: the first also pages in code the guest reads over 9p.
    function test_g_stoppedServiceNeverBlocksTheGuiThread() {
        const slow = createTemporaryObject(slowBacklight, test)
        tryCompare(slow, "status", "up", 20000)
        sim.watchStalls()
        wait(3000) // nothing to do: what the guest itself costs the GUI thread
        console.log("idle: longest GUI-thread stall " + sim.longestStall().toFixed(1) + " ms")
        for (let round = 1; round <= 2; ++round) {
            const doomed = slowBacklight.createObject(test)
            verify(sim.stop())
            sim.watchStalls()
            const start = Date.now()
            slow.refresh()
            slow.setBrightness(3)
            doomed.refresh()
            doomed.destroy() // a page gone with calls in flight
            const returned = Date.now() - start
            tryCompare(slow, "lastError", "timed out", 60000)
            const stall = sim.longestStall()
            verify(sim.resume())
            console.log("round " + round + ": stopped service, 10 s limit: calls returned after " + returned +
                        " ms; longest GUI-thread stall " + stall.toFixed(1) + " ms")
            verify(stall < 10000, "the GUI thread waited for a call: " + stall + " ms")
            compare(slow.status, "up") // stopped is not dead
            compare(slow.ready, true) // its values are the last answered
            slow.refresh()
            tryCompare(slow, "lastError", "", 20000)
        }
    }

    // Pages whose calls hang, destroyed: what stays is the lanes of the
    // three names (2 threads each, each holding the connection of the call
    // stuck on it), not a thread and a descriptor per object. On the
    // userspace driver both threads of a lane may hold a socket on each.
    function test_h_pagesDestroyedWhileAServiceHangsLeaveOnlyTheLanes() {
        const kPages = 100, kBound = 3 * 2, kFdBound = sim.userspaceDriver() ? 2 * kBound : kBound
        const threads = sim.threads(), fds = sim.descriptors()
        verify(sim.stop())
        let mostThreads = threads, mostFds = fds
        for (let round = 0; round < 2; ++round) {
            const pages = []
            for (let i = 0; i < kPages; ++i)
                pages.push(page.createObject(test))
            tryCompare(pages[kPages - 1].backlight, "lastError", "timed out", 60000)
            mostThreads = Math.max(mostThreads, sim.threads())
            mostFds = Math.max(mostFds, sim.descriptors())
            test.pagesGone = 0
            for (const p of pages)
                p.destroy()
            tryCompare(test, "pagesGone", kPages, 20000)
            mostThreads = Math.max(mostThreads, sim.threads())
            mostFds = Math.max(mostFds, sim.descriptors())
        }
        const threadsAfter = sim.threads(), fdsAfter = sim.descriptors()
        verify(sim.resume())
        console.log(2 * kPages + " pages of 3 objects made and destroyed on a stopped service: threads " + threads +
                    " -> at most " + mostThreads + ", " + threadsAfter + " after; descriptors " + fds +
                    " -> at most " + mostFds + ", " + fdsAfter + " after")
        verify(mostThreads - threads <= kBound, "threads " + threads + " -> " + mostThreads)
        verify(mostFds - fds <= kFdBound, "descriptors " + fds + " -> " + mostFds)
        backlight.refresh()
        tryCompare(backlight, "lastError", "", 20000)
    }
}
