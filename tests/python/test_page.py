"""Page inspection through the pytest plugin, on the QML panel (QML_PANEL):
misses name the nearest items, waits end on the change, an application that
ends or hangs fails the test with its output, inspection is refused where
others could reach it, and a failing test's JUnit XML carries the
application's output and the calls."""
import os
import re
import signal
import stat
import subprocess
import tempfile
import textwrap
import xml.etree.ElementTree as ET

import pytest

from hmisvc_pytest import page as page_module

pytest_plugins = ["pytester"]
PANEL = os.environ.get("QML_PANEL", "qml-panel")
PAGE_APP = os.environ.get("PAGE_APP", "page_app")
HMISVC = os.environ.get("HMISVC_CLI", "hmisvc")


def test_a_miss_names_the_nearest_items(hmisvc_app):
    page = hmisvc_app([PANEL]).page
    for query, nearest in (({"name": "brightnes"}, '"brightness", "brightnessLabel"'),
                           ({"text": "Wi-Fi network"}, '"Wi-Fi networks"')):
        with pytest.raises(AssertionError, match=re.escape(nearest)):
            page.find(**query)
    with pytest.raises(AssertionError, match='no property "valu"; nearest: "value"'):
        page.find("brightness").get("valu")


def test_wait_ends_on_the_change_or_names_what_it_had(hmisvc_device, hmisvc_app):
    label = hmisvc_app([PANEL]).page.find("brightnessLabel")
    label.wait("text", "Brightness 80 of 100")
    hmisvc_device.set("backlight.brightness", 30)
    assert label.wait("text", "Brightness 30 of 100") == "Brightness 30 of 100"
    with pytest.raises(AssertionError, match="text is 'Brightness 30 of 100', not 'never', after 0.2 s"):
        label.wait("text", "never", timeout=0.2)


def test_slide_and_click_reach_the_device(hmisvc_device, hmisvc_app):
    slider = hmisvc_app([PANEL]).page.find("brightness")
    slider.wait("to", 100)
    # Past its end a finger stops: refused, and nothing reaches the device.
    since = hmisvc_device.mark()
    with pytest.raises(AssertionError, match="goes from 0 to 100 now: it cannot slide to 120"):
        slider.slide(120)
    assert slider.slide(10) == 10
    hmisvc_device.wait_for_call("SetBrightness", args=[10])
    assert [c["args"] for c in hmisvc_device.calls(method="SetBrightness", since=since)] == [[10]]
    # A real press at the centre of the track moves the handle there.
    since = hmisvc_device.mark()
    slider.click()
    call = hmisvc_device.wait_for_call("SetBrightness", since=since)[0]
    assert 40 <= call["args"][0] <= 60


def test_typing_clicking_and_setting(hmisvc_app):
    page = hmisvc_app([PAGE_APP]).page
    page.find("field").type("Line 3: 42")
    assert page.find("field").get("text") == "Line 3: 42"
    page.find(text="Copy").click()
    page.find("shown").wait("text", "Line 3: 42")
    assert page.find("shown").set("text", "set") == "set"
    assert 'Button text="Copy"' in page.tree()


def test_screenshot_is_a_png(hmisvc_app, tmp_path):
    hmisvc_app([PANEL]).page.screenshot(tmp_path / "page.png")
    assert (tmp_path / "page.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"


def test_an_ended_or_hung_application_fails_with_its_output(hmisvc_app, monkeypatch):
    with pytest.raises(AssertionError, match=r"ended with status 3(.|\n)*out \| bye"):
        hmisvc_app(["sh", "-c", "echo bye; exit 3"]).page
    with monkeypatch.context() as patched:
        patched.setattr(page_module, "CONNECT_TIMEOUT", 0.5)
        with pytest.raises(AssertionError, match=r"not within 0.5 s(.|\n)*out \| waiting"):
            hmisvc_app(["sh", "-c", "echo waiting; exec sleep 600"]).page
    # A page that stops answering: each request is bounded.
    app = hmisvc_app([PANEL])
    slider = app.page.find("brightness")
    monkeypatch.setattr(page_module, "ANSWER_MARGIN", 0.5)
    os.kill(app.pid, signal.SIGSTOP)
    try:
        with pytest.raises(AssertionError, match="did not answer get within 0.5 s .it hangs."):
            slider.get("value")
    finally:
        os.kill(app.pid, signal.SIGCONT)


def test_inspection_refused_where_others_could_reach_it(tmp_path):
    tmp_path.chmod(0o755)
    env = dict(os.environ, QT_QPA_GENERIC_PLUGINS="hmisvcinspect", HMISVC_INSPECT=str(tmp_path / "inspect.sock"))
    env["QT_PLUGIN_PATH"] = page_module.plugin_path() or ""
    shot = tmp_path / "shot.png"
    run = subprocess.run([PANEL, "--screenshot", str(shot)], env=env, capture_output=True, text=True, timeout=120)
    assert f"not inspecting: {tmp_path} must be a directory of this user's only (mode 0700)" in run.stderr
    assert run.returncode == 0 and stat.S_IMODE(tmp_path.stat().st_mode) == 0o755


def test_junit_xml_holds_the_output_and_the_calls(pytester):
    pytester.makepyfile(test_inner=textwrap.dedent(f"""
        def test_fails(hmisvc_device, hmisvc_app):
            app = hmisvc_app(["sh", "-c", "echo from-the-app; {HMISVC} backlight get"])
            app.wait(30)
            assert False, "the page was wrong"
        """))
    result = pytester.runpytest_subprocess("-p", "hmisvc_pytest", "--junitxml=out.xml")
    result.assert_outcomes(failed=1)
    failure = ET.parse(pytester.path / "out.xml").getroot().find(".//testcase/failure")
    assert re.search(r"\d+\.\d{3} out \| from-the-app", failure.text), failure.text
    assert re.search(r"hmisvc: calls that came(.|\n)*backlight\.GetBrightness\(\) -> \d+", failure.text), failure.text
