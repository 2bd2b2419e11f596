"""The application under test: started, its output read as it comes, stopped."""
import atexit
import os
import re
import signal
import subprocess
import threading
import time
import tty

# How long a stopped application has after SIGTERM before SIGKILL.
STOP_GRACE = 5.0
# Every application still running, stopped when this process exits however
# the session ended (an interrupted test may not get to its teardown).
_running = set()
atexit.register(lambda: [app.stop() for app in list(_running)])


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
    """One started process. Its standard output and error are kept whole, each
    line with the time it came, for `expect` and for the failure report."""

    def __init__(self, command, env=None, cwd=None):
        self.command = command
        self._lock = threading.Condition()
        self._lines = []  # (seconds since start, stream, text)
        self._text = ""   # both streams as they came, for expect
        self._pos = 0     # where the next expect looks from
        self._open = 0    # streams still being read
        self.started = time.monotonic()
        channels = {name: _output_channel() for name in ("out", "err")}
        try:
            self.process = subprocess.Popen(
                command, shell=isinstance(command, str), env=env, cwd=cwd, stdin=subprocess.PIPE,
                stdout=channels["out"][1], stderr=channels["err"][1], start_new_session=True,
                preexec_fn=die_with_parent)
        finally:
            for _, write_end in channels.values():
                os.close(write_end)
        self.pid = self.process.pid
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
                self._text += text
                partial += text
                *whole, partial = partial.split("\n")
                self._lines.extend((now, stream, line) for line in whole)
                if not data:
                    if partial:
                        self._lines.append((now, stream, partial))
                    self._open -= 1
                self._lock.notify_all()
            if not data:
                os.close(fd)
                return

    def expect(self, pattern, timeout=5.0):
        """Waits for PATTERN (a regular expression) in the output after the last
        match; the match. An AssertionError with the whole output at the timeout,
        or when the application ended without printing it."""
        regex = re.compile(pattern)
        deadline = time.monotonic() + timeout
        with self._lock:
            while True:
                m = regex.search(self._text, self._pos)
                if m:
                    self._pos = m.end()
                    return m
                left = deadline - time.monotonic()
                if self._open == 0 or left <= 0:
                    break
                self._lock.wait(left)
        ended = self.process.poll()
        why = f"it ended with status {ended}" if ended is not None else f"not within {timeout} s"
        raise AssertionError(f"{self.describe()} did not print /{pattern}/ ({why}); it printed:\n{self.output()}")

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
        shown = self.command if isinstance(self.command, str) else " ".join(self.command)
        return f"{shown!r} (pid {self.pid})"

    def wait(self, timeout=None):
        """Its exit status once it ends (128+N for signal N)."""
        status = self.process.wait(timeout)
        return 128 - status if status < 0 else status

    def stop(self):
        """Ends it (SIGTERM, then SIGKILL after STOP_GRACE seconds), and anything it
        started in its session; its exit status."""
        if self.process.poll() is None:
            self._signal(signal.SIGTERM)
            try:
                self.process.wait(STOP_GRACE)
            except subprocess.TimeoutExpired:
                self._signal(signal.SIGKILL)
        status = self.wait()
        _running.discard(self)
        # Children that outlived it keep its output open.
        self._signal(signal.SIGKILL)
        if self.process.stdin:
            try:
                self.process.stdin.close()
            except OSError:
                pass
        for reader in self._readers:
            reader.join(STOP_GRACE)
        return status

    def _signal(self, sig):
        try:
            os.killpg(self.pid, sig)
        except OSError:
            pass
