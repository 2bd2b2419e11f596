"""The QML panel against the simulated device, in pytest: the four cases of
examples/hmi-console, read and steered on the page itself (app.page), with no
test code in the application. QML_PANEL names the program (else on PATH)."""
import os

APP = [os.environ.get("QML_PANEL", "qml-panel")]


def test_brightness_set_once(hmisvc_device, hmisvc_app):
    page = hmisvc_app(APP).page
    page.find("brightness").wait("to", hmisvc_device.state()["backlight"]["max"])
    page.find("brightness").slide(10)
    hmisvc_device.wait_for_call("SetBrightness", args=[10])
    page.find("brightnessLabel").wait("text", f"Brightness 10 of {hmisvc_device.state()['backlight']['max']}")
    assert [c["args"] for c in hmisvc_device.calls(method="SetBrightness")] == [[10]]


def test_backlight_down_and_back(hmisvc_device, hmisvc_app):
    status = hmisvc_app(APP).page.find("backlightStatus")
    status.wait("text", "backlight: up")
    hmisvc_device.fail("backlight")
    status.wait("text", "backlight: down (transaction failed)", timeout=10)
    hmisvc_device.heal("backlight")
    status.wait("text", "backlight: up", timeout=10)


def test_wifi_down_and_back(hmisvc_device, hmisvc_app):
    page = hmisvc_app(APP).page
    page.find("networks").wait("count", len(hmisvc_device.state()["wifi"]["scan"]))
    hmisvc_device.crash("wifiinfo")
    page.find("wifi").wait("status", "down")
    hmisvc_device.restart("wifiinfo")
    page.find("wifiStatus").wait("text", "Wi-Fi: up", timeout=10)


def test_broadcast_shown(hmisvc_device, hmisvc_app):
    page = hmisvc_app(APP).page
    page.find("broadcastsStatus").wait("text", "broadcasts: up")
    hmisvc_device.broadcast("hmi.action.show.settings", ints={"page": 2})
    page.find("lastBroadcast").wait("text", "hmi.action.show.settings page=2")
