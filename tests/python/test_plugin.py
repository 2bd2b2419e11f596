"""The pytest plugin on the real driver: its device verbs reach applications,
wrong names fail at once with the simulator's nearest names, each test gets a
clean device, and the application fixture reads, feeds and stops what it
started, showing its output and the calls in a failing test's report."""
import atexit
import json
import os
import re
import signal
import subprocess
import sys
import textwrap
import time

import pytest

pytest_plugins = ["pytester"]
HMISVC = os.environ.get("HMISVC_CLI", "hmisvc")


def alive(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    # A zombie is ended: only its parent has not collected it yet.
    with open(f"/proc/{pid}/stat") as f:
        return f.read().rsplit(")", 1)[1].split()[0] != "Z"


def steady(state):
    """The state without what the simulator reads live from the machine
    (free space and memory, which other programs change meanwhile)."""
    for live in ("storage_free_kib", "ram_free_kib"):
        state["system"].pop(live)
    return state


def inner(pytester, source):
    """Runs SOURCE as a test module in a pytest of its own, with the plugin."""
    pytester.makepyfile(test_inner=textwrap.dedent(source))
    return pytester.runpytest_subprocess("-p", "hmisvc_pytest")


def test_steering_reaches_applications(hmisvc_device, hmisvc_app):
    hmisvc_device.set("backlight.brightness", 42)
    assert hmisvc_device.state()["backlight"]["brightness"] == 42
    hmisvc_app([HMISVC, "backlight", "get"]).expect(r"\b42\b")
    hmisvc_device.load({"backlight": {"brightness": 7}})
    hmisvc_app([HMISVC, "backlight", "get"]).expect(r"\b7\b")

    hmisvc_device.fail("backlight", calls=1)
    assert hmisvc_app([HMISVC, "backlight", "get"]).wait() != 0
    assert hmisvc_app([HMISVC, "backlight", "get"]).wait() == 0
    hmisvc_device.fail("backlight")
    assert hmisvc_app([HMISVC, "backlight", "get"]).wait() != 0
    hmisvc_device.heal("backlight")
    assert hmisvc_app([HMISVC, "backlight", "get"]).wait() == 0

    hmisvc_device.unpublish("backlight")
    assert hmisvc_app([HMISVC, "check", "backlight"]).wait() == 1
    hmisvc_device.publish("backlight")
    assert hmisvc_app([HMISVC, "check", "backlight"]).wait() == 0

    hmisvc_device.crash("backlight")
    assert hmisvc_app([HMISVC, "check", "backlight"]).wait() == 1
    hmisvc_device.restart("backlight")
    assert hmisvc_app([HMISVC, "check", "backlight"]).wait() == 0
    hmisvc_device.crash("backlight", restart_after_ms=0)


@pytest.mark.parametrize("verb, args, nearest", [
    ("set", ("backlight.brightnes", 3), "backlight.brightness"),
    ("fail", ("backlite",), "backlight"),
    ("heal", ("wifiinf",), "wifiinfo"),
    ("unpublish", ("backlght",), "backlight"),
    ("reply", ("SetBrightnes", True), "SetBrightness"),
    ("wait_for_call", ("SetBrightnes",), "SetBrightness"),
])
def test_wrong_names_fail_at_once_naming_the_nearest(hmisvc_device, verb, args, nearest):
    before = steady(hmisvc_device.state())
    with pytest.raises(pytest.fail.Exception, match=rf"nearest: ([^;)]*, )?{re.escape(nearest)}\b"):
        getattr(hmisvc_device, verb)(*args)
    assert steady(hmisvc_device.state()) == before


# The call log, waits, scripted answers and scenarios, as one application sees them.
VERBS = f"""
import pytest
def test_verbs(hmisvc_device, hmisvc_app):
    assert bool(hmisvc_device.panel) == {{through_panel}}
    mark = hmisvc_device.mark()
    hmisvc_device.reply("GetBrightness", 7, "fail")
    hmisvc_app([{HMISVC!r}, "backlight", "get"]).expect(r"\\b7\\b")
    assert hmisvc_app([{HMISVC!r}, "backlight", "get"]).wait() != 0
    calls = hmisvc_device.wait_for_call("GetBrightness", count=2, since=mark)
    assert [c.get("reply") for c in calls] == [7, None]
    assert len(hmisvc_device.calls(service="backlight", since=mark)) == 2
    assert hmisvc_device.mark() >= mark + 2
    with pytest.raises(AssertionError, match=r"SetBrightness[\\s\\S]*GetBrightness"):
        hmisvc_device.wait_for_call("SetBrightness", since=mark, timeout=0.2)
    hmisvc_device.clear_calls()
    assert hmisvc_device.calls() == []
    hmisvc_device.play({{"steps": [{{"at": 0, "set": {{"backlight.brightness": 12}}}}]}})
    assert hmisvc_device.state()["backlight"]["brightness"] == 12
    with pytest.raises(AssertionError, match=r"not met[\\s\\S]*SetBrightness"):
        hmisvc_device.play({{"steps": [{{"expect": {{"method": "SetBrightness"}}, "before": 0.2}}]}})
"""


@pytest.mark.parametrize("through_panel", [True, False], ids=["panel", "hmisvc"])
def test_call_log_waits_and_scripted_answers(pytester, hmisvc_device, tmp_path, monkeypatch, through_panel):
    # A session reusing the simulator is steered through its panel when
    # HMISVC_PANEL_INFO names it, else through `hmisvc sim`.
    if through_panel:
        (tmp_path / "panel.json").write_text(json.dumps(hmisvc_device.panel))
        monkeypatch.setenv("HMISVC_PANEL_INFO", str(tmp_path / "panel.json"))
    else:
        monkeypatch.delenv("HMISVC_PANEL_INFO", raising=False)
    inner(pytester, VERBS.replace("{through_panel}", str(through_panel))).assert_outcomes(passed=1)


def test_each_test_gets_the_device_as_it_started(pytester):
    result = inner(pytester, f"""
        import subprocess
        def test_changes_everything(hmisvc_device):
            hmisvc_device.set("backlight.brightness", 99)
            hmisvc_device.fail("backlight")
            hmisvc_device.unpublish("wifiinfo")
            hmisvc_device.crash("date")
        def test_sees_none_of_it(hmisvc_device):
            assert hmisvc_device.state()["backlight"]["brightness"] != 99
            assert subprocess.run([{HMISVC!r}, "backlight", "get"]).returncode == 0
            assert subprocess.run([{HMISVC!r}, "check", "wifiinfo"]).returncode == 0
            assert subprocess.run([{HMISVC!r}, "check", "date"]).returncode == 0
    """)
    result.assert_outcomes(passed=2)


@pytest.mark.skipif(not os.environ.get("HMISVC_BINDER_SOCKET"),
                    reason="where /dev/binder serves, a session uses it")
@pytest.mark.parametrize("workers, under_runner", [(0, False), (2, False), (2, True)])
def test_sessions_on_a_pc_have_drivers_of_their_own(pytester, tmp_path, monkeypatch, workers, under_runner):
    # As a developer runs pytest on a PC (no driver named, none in /dev), or
    # under hmisvc-run --no-sim; with pytest-xdist, a driver per worker. Each
    # test says which driver it has and steers the device while another may
    # do the same.
    if workers:
        pytest.importorskip("xdist")
    runner = os.environ["HMISVC_BINDER_SOCKET"]
    if not under_runner:
        monkeypatch.delenv("HMISVC_BINDER_SOCKET")
    monkeypatch.setenv("SEEN", str(tmp_path / "seen"))
    pytester.makepyfile(test_inner=textwrap.dedent(f"""
        import os
        import pytest
        @pytest.mark.parametrize("value", [11, 22, 33, 44, 55, 66])
        def test_steers_its_own_device(hmisvc_device, hmisvc_app, value):
            with open(os.environ["SEEN"], "a") as f:
                f.write(os.environ.get("PYTEST_XDIST_WORKER", "-") + " " + os.environ["HMISVC_BINDER_SOCKET"] + "\\n")
            hmisvc_device.set("backlight.brightness", value)
            hmisvc_app([{HMISVC!r}, "backlight", "get"]).expect(rf"\\b{{value}}\\b")
            assert hmisvc_device.state()["backlight"]["brightness"] == value
    """))
    result = pytester.runpytest_subprocess("-p", "hmisvc_pytest", *(["-n", str(workers)] if workers else []))
    result.assert_outcomes(passed=6)
    seen = {}
    for line in (tmp_path / "seen").read_text().splitlines():
        worker, socket = line.split()
        seen.setdefault(worker, set()).add(socket)
    assert len(seen) == max(workers, 1), seen
    sockets = [s for worker in seen.values() for s in worker]
    # One driver per worker, and none is the runner's.
    assert all(len(worker) == 1 for worker in seen.values()), seen
    assert len(set(sockets)) == len(seen) and runner not in sockets, seen


def test_application_output_input_and_end(hmisvc_app):
    app = hmisvc_app("echo to-out; echo to-err >&2; read line; echo got:$line; exit 3")
    app.expect("to-err")
    app.send("ping\n")
    assert app.expect(r"got:(\w+)").group(1) == "ping"
    assert app.wait() == 3
    lines = [line.split(None, 1)[1] for line in app.output().splitlines()]
    assert sorted(lines) == ["err | to-err", "out | got:ping", "out | to-out"]
    # Once matched, output is not matched again; an ended application fails
    # the wait at once, with everything it printed.
    with pytest.raises(AssertionError, match=r"ended with status 3[\s\S]*to-out"):
        app.expect("to-err", timeout=600)


def test_failing_test_shows_output_and_calls_and_stops_its_processes(pytester, tmp_path):
    pids = tmp_path / "pids"
    result = inner(pytester, f"""
        def test_fails(hmisvc_device, hmisvc_app):
            app = hmisvc_app("sleep 600 & echo $$ $! > {str(pids)!r}; echo started; wait")
            app.expect("started")
            hmisvc_app([{HMISVC!r}, "backlight", "set", "23"]).wait()
            app.expect("never printed", timeout=0.1)
    """)
    result.assert_outcomes(failed=1)
    report = result.stdout.str()
    assert "did not print /never printed/" in report
    assert "hmisvc: output of" in report and "out | started" in report
    assert "hmisvc: calls that came" in report
    for pid in map(int, pids.read_text().split()):
        assert not alive(pid), f"process {pid} outlived its test"


def test_interrupted_session_leaves_no_process(pytester, tmp_path):
    pids = tmp_path / "pids"
    result = inner(pytester, f"""
        import os, signal
        def test_interrupted(hmisvc_app):
            app = hmisvc_app("sleep 600 & echo $$ $! > {str(pids)!r}; echo started; wait")
            app.expect("started")
            os.kill(os.getpid(), signal.SIGINT)
    """)
    assert result.ret == pytest.ExitCode.INTERRUPTED
    for pid in map(int, pids.read_text().split()):
        assert not alive(pid), f"process {pid} outlived the interrupted session"


# An application whose child leaves its session, printing both pids once it has.
ESCAPING = "setsid sh -c 'echo pids $PPID $$; exec sleep 600' & wait"


def ends(pid, bound=60.0):
    """Waits for the pid's end; the bound is a failsafe."""
    deadline = time.monotonic() + bound
    while alive(pid) and time.monotonic() < deadline:
        time.sleep(0.01)
    return not alive(pid)


def test_stop_ends_what_left_the_session(hmisvc_app):
    app = hmisvc_app(ESCAPING)
    pids = [int(p) for p in app.expect(r"pids (\d+) (\d+)").groups()]
    app.stop()
    assert [pid for pid in pids if alive(pid)] == []


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGKILL], ids=["SIGTERM", "SIGKILL"])
def test_killed_session_leaves_no_process(pytester, tmp_path, sig):
    pids = tmp_path / "pids"
    pytester.makepyfile(test_inner=textwrap.dedent(f"""
        import os, time
        def test_killed(hmisvc_app):
            m = hmisvc_app({ESCAPING!r}).expect(r"pids (\\d+) (\\d+)")
            with open({str(pids)!r} + ".partial", "w") as f:
                f.write(" ".join(m.groups()))
            os.rename({str(pids)!r} + ".partial", {str(pids)!r})
            time.sleep(600)
    """))
    session = subprocess.Popen([sys.executable, "-m", "pytest", "-p", "hmisvc_pytest", "-p", "no:cacheprovider"],
                               cwd=pytester.path, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 120
    while not pids.exists() and session.poll() is None and time.monotonic() < deadline:
        time.sleep(0.01)
    session.send_signal(sig)
    session.wait()
    for pid in map(int, pids.read_text().split()):
        assert ends(pid), f"process {pid} outlived the killed session"


def test_forked_helpers_exit_stops_nothing(hmisvc_device, hmisvc_app):
    app = hmisvc_app("echo started; exec sleep 600")
    app.expect("started")
    helper = os.fork()
    if helper == 0:
        atexit._run_exitfuncs()  # what its exit would run
        os._exit(0)
    os.waitpid(helper, 0)
    assert alive(app.pid)
    assert subprocess.run([HMISVC, "check", "devsim.control"], capture_output=True).returncode == 0
    hmisvc_device.load({"backlight": {"brightness": 8}})
    assert hmisvc_device.state()["backlight"]["brightness"] == 8
