"""The simulated device, steered through the `hmisvc sim` commands."""
import json
import os
import re
import subprocess
import tempfile
import urllib.error
import urllib.request

import pytest

# `hmisvc` exits 2 when the simulator refused what it was asked (an unknown
# service, method or key, a value of the wrong type): the test is wrong, and
# fails at once with the simulator's words, which name the nearest known names.
REFUSED = 2
# The scripted answers that are not values of the method's return type.
_ANSWER_WORD = re.compile(r"fail|status:-?\d+|delay:\d+")


class HmisvcError(RuntimeError):
    """`hmisvc` could not do what was asked (no simulator, a failed publication)."""


class _NoRoute(HmisvcError):
    """The simulator's panel has no such request (an older simulator)."""


def _json(value):
    return json.dumps(value, ensure_ascii=False)


class Device:
    """The running simulator: set its state, script its answers, read its call log."""

    def __init__(self, hmisvc="hmisvc", panel=None):
        self.hmisvc = hmisvc
        # The simulator's panel ({"url", "port", "token"}, as --http-info
        # writes it): its routes answer without a program started per request.
        self.panel = panel
        self._files = tempfile.TemporaryDirectory(prefix="hmisvc-pytest.")
        self._start = None  # the state at session start, for reset without `sim reset`

    def close(self):
        self._files.cleanup()

    def _sim(self, *args, allow=(0,)):
        """Runs `hmisvc sim ARGS`; its standard output, or the test fails."""
        r = subprocess.run([self.hmisvc, "sim", *map(str, args)], stdin=subprocess.DEVNULL,
                           capture_output=True, text=True, errors="surrogateescape")
        if r.returncode in allow:
            return r
        message = (r.stderr or r.stdout).strip() or f"exit status {r.returncode}"
        if r.returncode == REFUSED:
            pytest.fail(f"hmisvc sim {args[0]}: {message}", pytrace=False)
        raise HmisvcError(f"hmisvc sim {' '.join(map(str, args))}: {message}")

    def _steer(self, verb, body, *cli_args, allow=(0,)):
        """A steering request: to the panel where there is one, else by `hmisvc sim`."""
        if not self.panel:
            return self._sim(verb, *cli_args, allow=allow)
        request = urllib.request.Request(self.panel["url"] + "api/" + verb, _json(body).encode(),
                                         {"X-Hmisvc-Token": self.panel["token"],
                                          "Content-Type": "application/json"})
        try:
            with urllib.request.urlopen(request, timeout=60) as answer:
                return json.load(answer)
        except urllib.error.HTTPError as e:
            message = json.load(e).get("error", e.reason)
            if e.code == 400:
                pytest.fail(f"hmisvc sim {verb}: {message}", pytrace=False)
            raise (_NoRoute if e.code == 404 else HmisvcError)(f"hmisvc sim {verb}: {message}") from None

    def _file(self, document_or_path, name):
        """A path as it is; a document (a dict, a list or a JSON text) written to a file."""
        if isinstance(document_or_path, os.PathLike) or (
                isinstance(document_or_path, str) and not document_or_path.lstrip().startswith(("{", "["))):
            return os.fspath(document_or_path)
        text = document_or_path if isinstance(document_or_path, str) else _json(document_or_path)
        path = os.path.join(self._files.name, name)
        with open(path, "w", encoding="utf-8", errors="surrogateescape") as f:
            f.write(text)
        return path

    # State and faults.
    def set(self, key, value):
        """One value of the state, by its dotted path in the dump ("backlight.brightness")."""
        self._steer("set", {"key": key, "value": value}, key, _json(value))

    def load(self, document_or_path):
        """A whole or partial state document (a dict, a JSON text or a file's path)."""
        path = self._file(document_or_path, "state.json")
        if not self.panel:
            self._sim("load", path)
            return
        with open(path, encoding="utf-8", errors="surrogateescape") as f:
            self._steer("load", {"state": f.read()})

    def fail(self, service, calls=None, status=None, delay_ms=None):
        """The service's next calls fail (all until healed unless `calls`); with `status`
        they get that status reply, with `delay_ms` a normal answer that late."""
        self._steer("fail", {"service": service, "status": status or 0,
                             "calls": -1 if calls is None else calls, "delay_ms": delay_ms or 0},
                    service, *self._filters(calls=calls, status=status, delay_ms=delay_ms))

    def heal(self, service):
        self._steer("heal", {"service": service}, service)

    def publish(self, service):
        self._steer("publish", {"service": service}, service)

    def unpublish(self, service):
        self._steer("unpublish", {"service": service}, service)

    def state(self):
        """The whole state, as `hmisvc sim dump` prints it."""
        if self.panel:
            with urllib.request.urlopen(self.panel["url"] + "api/state", timeout=60) as answer:
                return json.load(answer)["state"]
        return json.loads(self._sim("dump").stdout)

    # The test double's verbs.
    def broadcast(self, action, ints=None, strings=None):
        """Sends a broadcast from the simulator, with int and string extras."""
        options = []
        for option, extras in (("--int", ints), ("--string", strings)):
            for key, value in (extras or {}).items():
                options += [option, f"{key}={value}"]
        self._steer("broadcast", {"action": action, "ints": ints or {}, "strings": strings or {}},
                    action, *options)

    def reply(self, method, *answers):
        """Queues the method's next answers: values of its return type, or the
        words "fail", "status:N" and "delay:MS"; no answers empties the queue."""
        if not answers:
            self._sim("reply", method, "--clear")
            return
        self._sim("reply", method, *(a if isinstance(a, str) and _ANSWER_WORD.fullmatch(a) else _json(a)
                                     for a in answers))

    def reset(self):
        """The device as it started: values, faults, queued answers, publications, call log."""
        try:
            r = self._steer("reset", {}, allow=(0, REFUSED))
            if not isinstance(r, subprocess.CompletedProcess) or r.returncode == 0:
                return
        except _NoRoute:
            pass
        # A simulator without `sim reset`: the services that fail or are
        # unpublished (the dump lists them) healed and published, then its
        # start state back (which may fail or unpublish some itself).
        if self._start is None:
            self._sim("reset")
        for name, how in self.state().get("services", {}).items():
            (self.heal if how == "failed" else self.publish)(name)
        self.load(self._start)

    def play(self, scenario_or_path):
        """Runs a scenario in the simulator; an AssertionError lists the unmet expectations."""
        r = self._sim("play", self._file(scenario_or_path, "scenario.json"), allow=(0, 1))
        if r.returncode == 1:
            raise AssertionError("scenario not met:\n" + (r.stdout + r.stderr).strip())

    def calls(self, service=None, method=None, program=None, since=None):
        """The calls served so far (after `since`, a mark), as dicts."""
        return json.loads(self._sim("calls", "--json", *self._filters(service=service, method=method,
                                                                        program=program, since=since)).stdout)

    def mark(self):
        """The sequence number of the last call so far, to pass as `since`."""
        return int(self._sim("mark").stdout)

    def wait_for_call(self, method, args=None, count=1, since=None, program=None, timeout=5.0):
        """The first `count` calls of METHOD (with these arguments, where given)
        after `since`, as soon as they came; an AssertionError at the timeout."""
        options = self._filters(args=None if args is None else _json(args), count=count, since=since,
                                program=program, timeout=timeout)
        r = self._sim("wait-call", method, "--json", *options, allow=(0, 1))
        came = json.loads(r.stdout or "[]")
        if r.returncode == 0:
            return came
        wanted = method + ("" if args is None else f" with arguments {_json(args)}")
        raise AssertionError(f"{count} call(s) of {wanted} expected within {timeout} s; "
                             f"{len(came)} came:\n" + format_calls(came))

    @staticmethod
    def _filters(**given):
        options = []
        for name, value in given.items():
            if value is not None:
                options += ["--" + name.replace("_", "-"), value]
        return options


def format_calls(calls):
    """One line per call, as a failing test's report shows them."""
    lines = []
    for c in calls:
        outcome = (f"-> {_json(c['reply'])}" if "reply" in c
                   else f"failed: {c.get('error') or 'status ' + str(c.get('status'))}")
        lines.append(f"  #{c.get('seq')} {c.get('time', '')} {c.get('program', '?')}[{c.get('pid')}] "
                     f"{c.get('service')}.{c.get('method')}({_json(c.get('args', []))[1:-1]}) {outcome}")
    return "\n".join(lines) or "  (none)"
