"""The application under test: started under a supervising process, its
output read as it comes, stopped with everything it started."""
import atexit
import os
import re
import select
import signal
import subprocess
import sys
import threading
import time
import tty

from .page import Listener, Page

# How long a stopped application has after SIGTERM before SIGKILL.
STOP_GRACE = 5.0
_SUPERVISE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "supervise.py")
# Every application still running, stopped when this process exits however
# the session ended (an interrupted test may not get to its teardown); a
# process it forked stops none of them on its way out.
_running = set()
_owner = os.getpid()
atexit.register(lambda: os.getpid() == _owner and [app.stop() for app in list(_running)])


def die_with_parent():
    """In a child before exec: it gets SIGKILL when this process ends, even
    when this one is killed."""
    try:
        import ctypes
        ctypes.CDLL(None, use_errno=True).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG
    except (OSError, AttributeError):
        pass


def _output_channel():
    """(read end, write end): a terminal, so that the application's C library
    writes each line as it prints it, or a pipe where there is no terminal."""
    try:
        master, slave = os.openpty()
        tty.setraw(slave)  # no echo, "\n" stays "\n"
        return master, slave
    except OSError:
        return os.pipe()


class App:
    """One started process, under a supervisor of its own (supervise.py: a
    child subreaper with a parent-death signal) that kills every process it
    started when the App stops or this process dies, those that called setsid
    included. Its standard output and error are kept whole, each line with
    the time it came, for `expect` and for the failure report. A Qt Quick
    application's page is `page` (see page.py)."""

    def __init__(self, command, env=None, cwd=None):
        self.command = command
        self._listener = Listener()
        self._page = None
        env = self._listener.environment(os.environ if env is None else env)
        self._lock = threading.Condition()
        self._lines = []  # (seconds since start, stream, text)
        # Both streams as they came, for expect: whole lines, then the unfinished one.
        self._whole, self._tail = [], ""
        self._pos = (0, 0)  # (line, offset) where the next expect looks from
        self._open = 0      # streams still being read
        self._idle = False  # the last read emptied its stream
        self._owner = os.getpid()
        self._status = None
        self.started = time.monotonic()
        argv = ["/bin/sh", "-c", command] if isinstance(command, str) else list(map(os.fspath, command))
        channels = {name: _output_channel() for name in ("out", "err")}
        reports, reports_w = os.pipe()
        try:
            self.process = subprocess.Popen(
                [sys.executable, "-I", "-S", _SUPERVISE, str(os.getpid()), str(reports_w), "--", *argv],
                env=env, cwd=cwd, stdin=subprocess.PIPE, stdout=channels["out"][1],
                stderr=channels["err"][1], pass_fds=(reports_w,), start_new_session=True)
        except BaseException:
            os.close(reports)
            self._listener.close()
            raise
        finally:
            for _, write_end in channels.values():
                os.close(write_end)
            os.close(reports_w)
        self._reports = os.fdopen(reports, "rb", buffering=0)
        line = self._reports.readline()
        if not line:
            self.process.wait()
            self._listener.close()
            raise RuntimeError(f"{command!r} could not be started (its supervisor ended)")
        self.pid = int(line)
        _running.add(self)
        self._readers = [threading.Thread(target=self._read, args=(name, read_end), daemon=True)
                         for name, (read_end, _) in channels.items()]
        self._open = len(self._readers)
        for reader in self._readers:
            reader.start()

    def _read(self, stream, fd):
        partial = ""
        while True:
            try:
                data = os.read(fd, 65536)
            except OSError:  # a terminal whose other side has closed
                data = b""
            now = time.monotonic() - self.started
            text = data.decode("utf-8", "backslashreplace")
            with self._lock:
                *whole, self._tail = (self._tail + text).split("\n")
                self._whole.extend(whole)
                partial += text
                *whole, partial = partial.split("\n")
                self._lines.extend((now, stream, line) for line in whole)
                self._idle = len(data) < 65536
                if not data:
                    if partial:
                        self._lines.append((now, stream, partial))
                    self._open -= 1
                self._lock.notify_all()
            if not data:
                os.close(fd)
                return

    def expect(self, pattern, timeout=5.0):
        """Waits for PATTERN (a regular expression, matched within one line at a
        time) in the output after the last match; the match. An AssertionError
        with the whole output at the timeout, or when the application ended
        without printing it.

        Each line is searched once, when it is whole; the unfinished last one
        when the application paused, or once it has doubled since it was last
        searched: the wait is linear in the output's lines."""
        regex = re.compile(pattern)
        deadline = time.monotonic() + timeout
        with self._lock:
            line, offset = self._pos
            unfinished = 0
            while True:
                for line in range(line, len(self._whole)):
                    m = regex.search(self._whole[line], offset)
                    if m:
                        self._pos = (line, m.end())
                        return m
                    offset, unfinished = 0, 0
                line = len(self._whole)
                tail = len(self._tail)
                if tail > unfinished and (self._idle or self._open == 0 or tail >= 2 * unfinished):
                    unfinished = tail
                    m = regex.search(self._tail, offset)
                    if m:
                        self._pos = (line, m.end())
                        return m
                left = deadline - time.monotonic()
                if self._open == 0 or left <= 0:
                    break
                self._lock.wait(left)
        ended = self.poll()
        why = f"it ended with status {ended}" if ended is not None else f"not within {timeout} s"
        raise AssertionError(f"{self.describe()} did not print /{pattern}/ ({why}); it printed:\n{self.output()}")

    @property
    def page(self):
        """Its Qt Quick page (a Page), reached on first use."""
        if self._page is None:
            self._page = Page(self, self._listener)
        return self._page

    def send(self, text):
        """Writes TEXT to the application's standard input."""
        self.process.stdin.write(text.encode())
        self.process.stdin.flush()

    def output(self):
        """Everything printed so far, one line each with its time and stream."""
        with self._lock:
            lines = list(self._lines)
        return "\n".join(f"  {t:8.3f} {s} | {text}" for t, s, text in lines) or "  (nothing)"

    def describe(self):
        shown = self.command if isinstance(self.command, str) else " ".join(map(str, self.command))
        return f"{shown!r} (pid {self.pid})"

    def _await(self, timeout):
        """Its status once its supervisor reported it, waiting up to TIMEOUT
        seconds (None: for ever); None before."""
        if self._status is None and self._reports is not None:
            if select.select([self._reports], [], [], timeout)[0]:
                line = self._reports.readline()
                self._status = int(line) if line.strip() else None
        return self._status

    def poll(self):
        """Its exit status once it ended, else None."""
        return self._await(0)

    def wait(self, timeout=None):
        """Its exit status once it ends (128+N for signal N)."""
        status = self._await(timeout)
        if status is None:
            raise subprocess.TimeoutExpired(self.command, timeout)
        return status

    def stop(self):
        """Ends it (SIGTERM to its session, then SIGKILL to everything it started
        after STOP_GRACE seconds) and anything it started; its exit status. In a
        process this one forked, it does nothing."""
        if os.getpid() != self._owner or self._reports is None:
            return self._status
        if self.poll() is None:
            # Unreaped until the supervisor ends: its pid and group are its own.
            self._signal(signal.SIGTERM)
            self._await(STOP_GRACE)
        self.process.terminate()
        self._await(None)
        if self._page is not None:
            self._page.close()
        self._listener.close()
        self.process.wait()
        self._reports.close()
        self._reports = None
        _running.discard(self)
        if self.process.stdin:
            try:
                self.process.stdin.close()
            except OSError:
                pass
        for reader in self._readers:
            reader.join(STOP_GRACE)
        return self._status

    def _signal(self, sig):
        for kill, target in ((os.killpg, self.pid), (os.kill, self.pid)):
            try:
                kill(target, sig)
            except OSError:
                pass
