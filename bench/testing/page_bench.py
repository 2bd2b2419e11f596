"""Page inspection's costs, on the QML panel (QML_PANEL, offscreen):

- StartUp/off, StartUp/on: `qml-panel --screenshot` (up, a 3 s timer, a
  frame grabbed, quit) without and with inspection asked for; the plugin's
  cost is the difference of the medians.
- WaitAfterChange: from the simulator serving the GetBrightness that
  brings a new value to the return of a `wait` on the label showing it (the
  module's delivery to the page included).

Medians of ROUNDS. A pytest module, so that it gets the simulator:

    hmisvc-run env QML_PANEL=build/host/examples/qml-panel/qml-panel \
        HMISVC_QT_PLUGIN_PATH=build/host/plugins QT_QPA_PLATFORM=offscreen \
        PYTHONPATH=python python3 -m pytest -p hmisvc_pytest -s -q bench/testing/page_bench.py
"""
import os
import statistics
import subprocess
import time

from hmisvc_pytest.page import Listener

PANEL = os.environ.get("QML_PANEL", "qml-panel")
ROUNDS = int(os.environ.get("ROUNDS", "10"))


def test_startup(tmp_path):
    times = {"off": [], "on": []}
    for _ in range(ROUNDS):
        for name in times:
            # A socket of its own each time, as each App has.
            listener = Listener()
            env = listener.environment(os.environ) if name == "on" else dict(os.environ)
            started = time.monotonic()
            subprocess.run([PANEL, "--screenshot", str(tmp_path / "shot.png")], env=env, check=True,
                           capture_output=True, timeout=120)
            times[name].append(time.monotonic() - started)
            listener.close()
    for name, measured in times.items():
        print(f"\nStartUp/{name}: median {statistics.median(measured) * 1000:.0f} ms "
              f"(min {min(measured) * 1000:.0f}, max {max(measured) * 1000:.0f})")
    print(f"StartUp on - off: {(statistics.median(times['on']) - statistics.median(times['off'])) * 1000:+.0f} ms")


def test_wait_after_change(hmisvc_device, hmisvc_app):
    label = hmisvc_app([PANEL]).page.find("brightnessLabel")
    label.wait("text", "Brightness 80 of 100")
    latencies = []
    for level in range(1, ROUNDS + 1):
        since = hmisvc_device.mark()
        hmisvc_device.set("backlight.brightness", level)
        label.wait("text", f"Brightness {level} of 100")
        returned = time.time()
        served = [c["time"] for c in hmisvc_device.calls(method="GetBrightness", since=since) if c.get("reply") == level]
        latencies.append(returned - served[0])
    print(f"\nWaitAfterChange: median {statistics.median(latencies) * 1000:.1f} ms "
          f"(min {min(latencies) * 1000:.1f}, max {max(latencies) * 1000:.1f})")
