"""pytest fixtures for testing an HMI application against the simulated device.

Installed, pytest loads this plugin by itself (entry point "hmisvc"); from a
source tree, `PYTHONPATH=python python3 -m pytest -p hmisvc_pytest ...`.

hmisvc_device: the simulator, freshly reset for each test (see Device).
hmisvc_app: starts the application under test (see App); every process it
started is stopped when the test ends.

The service manager and the simulator are started once per session, or the
one already serving is used (under hmisvc-run). Where there is no usable
/dev/binder the session runs on a private userspace driver (hmisvc-binderd)
it starts itself, so `python3 -m pytest tests/` works as it is; each
pytest-xdist worker (`-n 2`) there has a session of its own, on its own
driver, so that workers never meet.
"""
import atexit
import json
import os
import shutil
import subprocess
import tempfile

import pytest

from .app import App, die_with_parent
from .device import Device, HmisvcError, PrivateDir, format_calls

__all__ = ["App", "Device", "HmisvcError"]

_CONTROL = "devsim.control"


def _local_temp_dir():
    """In hmisvc-run's guest, /tmp is this host's, shared over 9p, where a file
    cannot be truncated once unlinked, which pytest's output capture does:
    temporary files go to the guest's own /dev/shm there."""
    try:
        with open("/proc/self/mounts") as f:
            mounts = [line.split()[1:3] for line in f]
    except OSError:
        return
    def fs_type(path):
        path = os.path.realpath(path)
        best = max((m for m in mounts if path == m[0] or path.startswith(m[0].rstrip("/") + "/")),
                   key=lambda m: len(m[0]), default=(None, None))
        return best[1]
    if fs_type(tempfile.gettempdir()) == "9p" and fs_type("/dev/shm") == "tmpfs":
        tempfile.tempdir = "/dev/shm"


_local_temp_dir()
# How many times the simulator is started while the service manager it
# needs is not serving yet.
_START_TRIES = 50


def pytest_addoption(parser):
    group = parser.getgroup("hmisvc", "the simulated device (hmisvc)")
    group.addoption("--hmisvc-state", metavar="FILE",
                    help="start the simulator from this state (when the plugin starts it)")
    group.addoption("--hmisvc-settings", metavar="FILE",
                    help="the simulator's settings file (when the plugin starts it)")


def _program(variable, name, beside=None):
    path = os.environ.get(variable) or (beside and shutil.which(name, path=beside)) or shutil.which(name)
    if not path:
        raise pytest.UsageError(f"hmisvc: {name} not found (install hmisvc-tools, or set {variable})")
    return path


class _Session:
    """The service manager and simulator this session started, if any."""

    def __init__(self, config):
        self.hmisvc = _program("HMISVC_CLI", "hmisvc")
        beside = os.path.dirname(os.path.realpath(self.hmisvc))
        self.processes = []
        self.owner = os.getpid()
        self.files = PrivateDir("hmisvc-session.")
        self.panel = None
        atexit.register(self.stop)
        # A pytest-xdist worker without the kernel's driver gets a session of
        # its own: a private userspace driver, service manager and simulator.
        if os.environ.get("PYTEST_XDIST_WORKER") and (
                os.environ.get("HMISVC_BINDER_SOCKET") or not os.access("/dev/binder", os.R_OK | os.W_OK)):
            self._own_driver(_program("HMISVC_BINDERD", "hmisvc-binderd", beside))
        if subprocess.run([self.hmisvc, "check", _CONTROL], capture_output=True).returncode == 0:
            # Its panel, where the caller says where it is.
            if os.environ.get("HMISVC_PANEL_INFO"):
                with open(os.environ["HMISVC_PANEL_INFO"]) as f:
                    self.panel = json.load(f)
            return
        # No driver here (no /dev/binder, no userspace driver named): a
        # private hmisvc-binderd for the session, as hmisvc-run would start.
        if not os.environ.get("HMISVC_BINDER_SOCKET") and not os.access("/dev/binder", os.R_OK | os.W_OK):
            self._own_driver(_program("HMISVC_BINDERD", "hmisvc-binderd", beside))
        self._start(_program("HMISVC_SERVICEMANAGER", "hmisvc-servicemanager", beside),
                    _program("HMISVC_DEVSIM", "hmisvc-devsim", beside), config)

    def _spawn(self, command, **kwargs):
        p = subprocess.Popen(command, stdin=subprocess.DEVNULL, preexec_fn=die_with_parent, **kwargs)
        self.processes.append(p)
        return p

    def _own_driver(self, binderd):
        socket = os.path.join(self.files.name, "binder")
        driver = self._spawn([binderd, "--socket", socket], stdout=subprocess.PIPE, text=True)
        # It says the socket once it listens there.
        if driver.stdout.readline().strip() != socket:
            self.stop()
            raise pytest.UsageError(f"hmisvc: {binderd} did not serve on {socket}")
        os.environ["HMISVC_BINDER_SOCKET"] = socket

    def _start(self, servicemanager, devsim, config):
        self._spawn([servicemanager])
        command = [devsim]
        for option in ("state", "settings"):
            if config.getoption("hmisvc_" + option):
                command += ["--" + option, config.getoption("hmisvc_" + option)]
        # Steered through its panel where the build has one: a request costs
        # far less than starting `hmisvc`.
        info = os.path.join(self.files.name, "panel.json")
        panel = ["--http", "127.0.0.1:0", "--http-info", info]
        said = ""
        for _ in range(_START_TRIES):
            if panel and "no browser panel" in said:
                panel = []
            with tempfile.TemporaryFile("w+") as errors:
                sim = self._spawn(command + panel, stdout=subprocess.PIPE, stderr=errors, text=True)
                # "ready" once it serves; it ends at once while the service
                # manager is not serving yet.
                if any("ready" in line for line in iter(sim.stdout.readline, "")):
                    if panel:
                        with open(info) as f:
                            self.panel = json.load(f)
                    return
                errors.seek(0)
                said = errors.read()
            self.processes.remove(sim)
            sim.wait()
            if "publish" not in said and not (panel and "no browser panel" in said):
                break
            # Give the service manager a moment to come up.
            subprocess.run([self.hmisvc, "list"], capture_output=True)
        self.stop()
        raise pytest.UsageError(f"hmisvc: the simulator did not come up: {said.strip()}")

    def stop(self):
        # A process pytest forked (a helper whose exit runs the exit
        # handlers) stops nothing of the session's.
        if os.getpid() != self.owner:
            return
        for p in reversed(self.processes):
            if p.poll() is None:
                p.terminate()
                p.wait()
        self.processes = []
        self.files.close()


@pytest.fixture(scope="session")
def _hmisvc_session(request):
    session = _Session(request.config)
    device = Device(session.hmisvc, session.panel)
    yield device
    device.close()
    session.stop()


@pytest.fixture
def hmisvc_device(_hmisvc_session, request):
    """The simulated device, reset to how it started."""
    _hmisvc_session.reset()
    request.node._hmisvc_device = _hmisvc_session
    return _hmisvc_session


@pytest.fixture
def hmisvc_app(request):
    """start(command, env=None, cwd=None) -> App: a list of arguments, or a
    string run by the shell; stopped, with all it started, at the test's end."""
    apps = request.node._hmisvc_apps = []

    def start(command, env=None, cwd=None):
        app = App(command, env=env, cwd=cwd)
        apps.append(app)
        return app

    yield start
    for app in apps:
        app.stop()


def _add_section(report, title, text):
    """In the failure itself, so that JUnit XML (--junitxml) carries it too,
    as well as the terminal."""
    if hasattr(report.longrepr, "addsection"):
        report.longrepr.addsection(title, text)
    else:
        report.sections.append((title, text))


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = (yield).get_result()
    if not report.failed:
        return
    for app in getattr(item, "_hmisvc_apps", []):
        _add_section(report, f"hmisvc: output of {app.describe()}", app.output())
    device = getattr(item, "_hmisvc_device", None)
    if device is not None and not getattr(item, "_hmisvc_calls_shown", False):
        item._hmisvc_calls_shown = True
        try:
            calls = format_calls(device.calls())
        except (HmisvcError, pytest.fail.Exception, ValueError) as e:
            calls = f"  (the call log could not be read: {e})"
        _add_section(report, "hmisvc: calls that came", calls)
