// Hmisvc.Testing's DeviceControl against the simulator: each verb's effect
// seen through the module's types or through state() and calls(), and the
// simulator's refusals as errors that fail the test case.
import QtQuick
import QtTest
import Hmisvc
import Hmisvc.Testing

TestCase {
    id: test
    name: "DeviceControl"
    DeviceControl { id: device }
    Backlight { id: backlight; refreshInterval: 100 }
    Component { id: polledBacklight; Backlight { refreshInterval: 100 } }
    property var received: null
    Broadcasts {
        id: broadcasts
        actions: ["hmisvc.test.control"]
        onReceived: (action, ints, strings) => test.received = { action: action, ints: ints, strings: strings }
    }

    function init() { device.reset(); tryCompare(backlight, "status", "up", 20000) }
    function cleanupTestCase() { device.reset() }
    // The message of the error F throws.
    function error(f) {
        try { f() } catch (e) { return e.message }
        fail("no error thrown")
    }
    // Every value the handle's property had from now, as it changed.
    function history(handle, property) {
        const seen = [handle[property]]
        handle[property + "Changed"].connect(() => seen.push(handle[property]))
        return seen
    }

    function test_stateVerbs_data() {
        return [
            { tag: "set", verb: () => device.set("backlight.brightness", 41), brightness: 41 },
            { tag: "load object", verb: () => device.load({ backlight: { brightness: 42 } }), brightness: 42 },
            { tag: "load JSON text", verb: () => device.load('{"backlight": {"brightness": 43}}'), brightness: 43 },
            { tag: "play", verb: () => device.play({ steps: [{ at: 0.1, set: { "backlight.brightness": 44 } }] }),
              brightness: 44 },
            { tag: "reply", verb: () => device.reply("GetBrightness", [45]), brightness: 45 },
        ]
    }
    // A scripted answer is seen once: every value the property had counts.
    function test_stateVerbs(data) {
        const start = device.state().backlight.brightness, seen = history(backlight, "brightness")
        data.verb()
        tryVerify(() => seen.includes(data.brightness), 20000, JSON.stringify(seen))
        compare(device.state().backlight.brightness, data.tag === "reply" ? start : data.brightness)
        device.reset()
        compare(device.state().backlight.brightness, start)
    }

    function test_servicesGoAndComeBack_data() {
        return [
            { tag: "fail", down: () => device.fail("backlight"), up: () => device.heal("backlight"), shown: "failed" },
            { tag: "fail one call", down: () => device.fail("backlight", 1), up: () => {} },
            // One held before still reaches the service: a new handle sees it.
            { tag: "unpublish", down: () => device.unpublish("backlight"), up: () => device.publish("backlight"),
              shown: "absent", fresh: true },
            { tag: "crash", down: () => device.crash("backlight"), up: () => device.restart("backlight") },
            { tag: "crash with a restart", down: () => device.crash("backlight", 1000), up: () => {} },
            { tag: "reset", down: () => device.crash("backlight"), up: () => device.reset() },
        ]
    }
    function test_servicesGoAndComeBack(data) {
        let handle = backlight, seen = history(handle, "status")
        data.down()
        if (data.shown)
            compare(device.state().services.backlight, data.shown)
        if (data.fresh)
            seen = history(handle = createTemporaryObject(polledBacklight, test), "status")
        tryVerify(() => seen.includes("down"), 20000, JSON.stringify(seen))
        data.up()
        tryCompare(handle, "status", "up", 20000)
        compare(device.state().services.backlight, undefined)
    }

    function test_broadcastReachesTheTypes() {
        tryCompare(broadcasts, "receiving", true, 30000)
        device.broadcast("hmisvc.test.control", { page: 2 }, { from: "test" })
        tryVerify(() => test.received !== null, 20000)
        compare(test.received.ints.page, 2)
        compare(test.received.strings.from, "test")
    }

    function test_callsAreLoggedAndAwaited() {
        const since = device.mark()
        backlight.setBrightness(12)
        const came = device.waitForCall("SetBrightness", [12], 20)
        compare(came.length, 1)
        compare(came[0].args, [12])
        compare(device.calls({ method: "SetBrightness", since: since }).map(c => c.args), [[12]])
        verify(device.mark() > since)
        device.clearCalls()
        compare(device.calls({ method: "SetBrightness" }), [])
    }

    function test_refusalsThrow_data() {
        return [
            { tag: "unknown service", verb: () => device.fail("backlite"), error: /no service "backlite" \(nearest: backlight/ },
            { tag: "crash of a service already down", verb: () => { device.crash("backlight"); device.crash("backlight") },
              error: /^DeviceControl.crash: backlight is already down/ },
            { tag: "unknown key", verb: () => device.set("backlight.nosuch", 1), error: /no such key/ },
            { tag: "answer of the wrong type", verb: () => device.reply("GetBrightness", ["x"]), error: /GetBrightness answers/ },
            { tag: "answers not in an array", verb: () => device.reply("GetBrightness", 45),
              error: /^DeviceControl.reply: answers: expected an array, got 45$/ },
            { tag: "arguments not in an array", verb: () => device.waitForCall("SetBrightness", 10),
              error: /^DeviceControl.waitForCall: args: expected an array, got 10$/ },
            { tag: "scenario not met", verb: () => device.play({ steps: [{ expect: { method: "Beep" }, before: 0.2 }] }),
              error: /^scenario not met:\n/ },
            { tag: "missing file", verb: () => device.load("/nonexistent/state.json"), error: /^DeviceControl.load: \/nonexistent/ },
            { tag: "call that did not come", verb: () => {
                  backlight.setBrightness(13)
                  device.waitForCall("SetBrightness", [13], 20)
                  device.waitForCall("SetBrightness", [99], 0.5)
              },
              error: /^1 call\(s\) of SetBrightness with arguments \[99\] expected within 0.5 s; \d+ came:\n[^]*SetBrightness\(13\)/ },
        ]
    }
    function test_refusalsThrow(data) {
        const message = error(data.verb)
        verify(data.error.test(message), message)
    }

    // No simulator, and one that stopped answering: errors within the limit.
    function test_unreachableSimulatorThrows() {
        sim.kill()
        // Until the service manager saw it die, "did not answer".
        tryVerify(() => /^DeviceControl.mark: no simulator is running \("devsim.control" is not registered\)$/
                  .test(error(() => device.mark())), 20000)
        verify(sim.start())
        verify(sim.stop())
        device.timeLimit = 300
        const message = error(() => device.reset())
        device.timeLimit = 30000
        verify(sim.resume())
        compare(message, "DeviceControl.reset: no answer from the simulator within 300 ms")
    }
}
