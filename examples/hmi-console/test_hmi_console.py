"""The console HMI against the simulated device, in pytest: the four cases of
an HMI application's CI. HMI_CONSOLE names the program (else on PATH)."""
import os

APP = [os.environ.get("HMI_CONSOLE", "hmi-console")]


def test_brightness_set_once(hmisvc_device, hmisvc_app):
    app = hmisvc_app(APP)
    app.expect("ready")
    app.send("brightness 10\n")
    hmisvc_device.wait_for_call("SetBrightness", args=[10])
    app.expect("brightness 10")
    assert [c["args"] for c in hmisvc_device.calls(method="SetBrightness")] == [[10]]


def test_backlight_down_and_back(hmisvc_device, hmisvc_app):
    app = hmisvc_app(APP)
    app.expect("ready")
    hmisvc_device.fail("backlight")
    app.expect("backlight: service down")
    hmisvc_device.heal("backlight")
    app.expect("backlight: reconnected")


def test_wifi_list_follows(hmisvc_device, hmisvc_app):
    app = hmisvc_app(APP)
    app.expect("wifi: (?!none)")
    hmisvc_device.crash("wifiinfo")
    app.expect("wifi: none")
    hmisvc_device.restart("wifiinfo")
    app.expect("wifi: (?!none)")


def test_broadcast_shown(hmisvc_device, hmisvc_app):
    app = hmisvc_app(APP)
    app.expect("ready")
    hmisvc_device.broadcast("hmi.console.message", strings={"text": "shift ends at 6"})
    app.expect("message: shift ends at 6")
