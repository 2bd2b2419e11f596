"""The supervising process of one App (run as `python3 -I -S supervise.py
RUNNER REPORTS -- COMMAND...`, by App alone).

It is a child subreaper with a parent-death signal on RUNNER (pytest), and
starts COMMAND in a session of its own. On SIGTERM (App.stop, or pytest's
death however it died) it kills every process COMMAND started, those that
left its session included: each one orphaned comes back to it. On the pipe
REPORTS it writes COMMAND's pid, then its exit status (128+N for signal N),
one line each.
"""
import ctypes
import os
import signal
import sys

PR_SET_PDEATHSIG = 1
PR_SET_CHILD_SUBREAPER = 36
HANDLED = {signal.SIGCHLD, signal.SIGTERM, signal.SIGINT, signal.SIGHUP}


def children():
    """Its children as the kernel lists them, zombies included."""
    try:
        with open("/proc/thread-self/children") as f:
            return [int(p) for p in f.read().split()]
    except OSError:
        return []


def status_of(code, signal_number=0):
    return 128 + signal_number if signal_number else code


def main():
    runner, reports, argv = int(sys.argv[1]), int(sys.argv[2]), sys.argv[4:]
    before = signal.pthread_sigmask(signal.SIG_BLOCK, HANDLED)
    signal.signal(signal.SIGCHLD, signal.SIG_DFL)  # ignored, the kernel would reap for it
    libc = ctypes.CDLL(None, use_errno=True)
    libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    libc.prctl(PR_SET_PDEATHSIG, signal.SIGTERM, 0, 0, 0)
    if os.getppid() != runner:
        return 1  # pytest died already
    app = os.fork()
    if app == 0:
        try:
            os.setsid()
            signal.pthread_sigmask(signal.SIG_SETMASK, before)
            # What Python ignores for itself, the application gets at its defaults.
            for name in ("SIGPIPE", "SIGXFSZ", "SIGXFZ"):
                if hasattr(signal, name):
                    signal.signal(getattr(signal, name), signal.SIG_DFL)
            os.close(reports)
            os.execvp(argv[0], argv)
        except OSError as e:
            os.write(2, f"{argv[0]}: {e.strerror}\n".encode(errors="replace"))
        os._exit(127)
    os.write(reports, b"%d\n" % app)
    null = os.open(os.devnull, os.O_RDWR)
    for fd in (0, 1, 2):
        os.dup2(null, fd)
    os.close(null)

    reported = False

    def report(status):
        nonlocal reported
        if not reported:
            try:
                os.write(reports, b"%d\n" % status)
            except OSError:
                pass  # pytest is gone: the rest is killed all the same
        reported = True

    while signal.sigwaitinfo(HANDLED).si_signo == signal.SIGCHLD:
        # The application is left unreaped, so that its pid and session stay
        # its own while App may signal them; orphans are reaped.
        ended = None if reported else os.waitid(os.P_PID, app, os.WEXITED | os.WNOHANG | os.WNOWAIT)
        if ended is not None and ended.si_pid == app:
            report(ended.si_status if ended.si_code == os.CLD_EXITED else status_of(0, ended.si_status))
        for pid in children():
            if pid != app:
                try:
                    os.waitpid(pid, os.WNOHANG)
                except ChildProcessError:
                    pass
    # The end: every process left, each layer as it comes back to it.
    while True:
        for pid in children():
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        try:
            pid, status = os.waitpid(-1, 0)
        except ChildProcessError:
            return 0
        if pid == app:
            report(os.waitstatus_to_exitcode(status) if os.WIFEXITED(status) else status_of(0, os.WTERMSIG(status)))


if __name__ == "__main__":
    sys.exit(main())
