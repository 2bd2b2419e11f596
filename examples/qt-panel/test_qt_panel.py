"""The Qt panel (offscreen, --watch) against the simulated device, in pytest:
the four cases of an HMI application's CI. QT_PANEL names the program (else on PATH)."""
import os

os.environ.setdefault("QT_QPA_PLATFORM", "offscreen")
APP = [os.environ.get("QT_PANEL", "qt-panel"), "--watch"]


def test_slider_sets_brightness_once(hmisvc_device, hmisvc_app):
    app = hmisvc_app(APP)
    app.expect("ready", timeout=30)  # Qt starts slowly in an emulated guest
    app.send("brightness 10\n")
    hmisvc_device.wait_for_call("SetBrightness", args=[10])
    app.expect("brightness: 10 of")
    assert [c["args"] for c in hmisvc_device.calls(method="SetBrightness")] == [[10]]


def test_backlight_down_and_back(hmisvc_device, hmisvc_app):
    app = hmisvc_app(APP)
    app.expect("ready", timeout=30)  # Qt starts slowly in an emulated guest
    hmisvc_device.fail("backlight")
    app.expect("backlight: service down")
    hmisvc_device.heal("backlight")
    app.expect("backlight: reconnected")


def test_wifi_list_follows(hmisvc_device, hmisvc_app):
    app = hmisvc_app(APP)
    app.expect("wifi: Office-WiFi", timeout=30)
    hmisvc_device.crash("wifiinfo")
    app.expect("wifi: unavailable")
    hmisvc_device.restart("wifiinfo")
    app.expect("wifi: Office-WiFi")


def test_broadcast_shown(hmisvc_device, hmisvc_app):
    app = hmisvc_app(APP)
    app.expect("ready", timeout=30)  # Qt starts slowly in an emulated guest
    hmisvc_device.broadcast("hmi.action.show.settings", ints={"page": 4})
    app.expect("broadcast: hmi.action.show.settings page=4")
