"""The simulated device, steered through the `hmisvc sim` commands."""
import contextlib
import json
import os
import re
import shutil
import subprocess
import tempfile
import urllib.error
import urllib.parse
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


class PrivateDir:
    """A directory of this process's own (mkdtemp: mode 0700, an unguessable
    name), removed by close() in this process only: a forked helper's exit
    handlers leave it to its owner, as a TemporaryDirectory's would not."""

    def __init__(self, prefix):
        self.name = tempfile.mkdtemp(prefix=prefix)
        self._owner = os.getpid()

    def write(self, text, name):
        """TEXT in a new file of its own here (mkstemp); its path."""
        fd, path = tempfile.mkstemp(prefix=name + ".", suffix=".json", dir=self.name)
        with open(fd, "w", encoding="utf-8", errors="surrogateescape") as f:
            f.write(text)
        return path

    def close(self):
        if os.getpid() == self._owner:
            shutil.rmtree(self.name, ignore_errors=True)


class Device:
    """The running simulator: set its state, script its answers, read its call log."""

    def __init__(self, hmisvc="hmisvc", panel=None):
        self.hmisvc = hmisvc
        # The simulator's panel ({"url", "port", "token"}, as --http-info
        # writes it): its routes answer without a program started per request.
        self.panel = panel
        self._files = PrivateDir("hmisvc-pytest.")

    def close(self):
        self._files.close()

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

    def _request(self, route, body=None, allow=(200,), query=None, timeout=60):
        """(status, answer) of one request to the panel: a GET without a body.
        400 (a refused request) fails the test at once with the simulator's words."""
        url = self.panel["url"] + "api/" + route
        if query:
            url += "?" + urllib.parse.urlencode({k: v for k, v in query.items() if v is not None})
        request = urllib.request.Request(url, None if body is None else _json(body).encode(),
                                         {"X-Hmisvc-Token": self.panel["token"],
                                          "Content-Type": "application/json"})
        try:
            with urllib.request.urlopen(request, timeout=timeout) as answer:
                return answer.status, json.load(answer)
        except urllib.error.HTTPError as e:
            try:
                answer = json.load(e)
            except ValueError:
                answer = {}
            if e.code in allow:
                return e.code, answer
            message = answer.get("error", e.reason) if isinstance(answer, dict) else e.reason
            if e.code == 400:
                pytest.fail(f"hmisvc sim {route}: {message}", pytrace=False)
            raise (_NoRoute if e.code == 404 else HmisvcError)(f"hmisvc sim {route}: {message}") from None

    def _steer(self, verb, body, *cli_args, allow=(0,)):
        """A steering request: to the panel where there is one, else by `hmisvc sim`."""
        if not self.panel:
            return self._sim(verb, *cli_args, allow=allow)
        return self._request(verb, body)[1]

    @contextlib.contextmanager
    def _file(self, document_or_path, name):
        """A path as it is; a document (a dict, a list or a JSON text) written to a
        private file for the while."""
        if isinstance(document_or_path, os.PathLike) or (
                isinstance(document_or_path, str) and not document_or_path.lstrip().startswith(("{", "["))):
            yield os.fspath(document_or_path)
            return
        text = document_or_path if isinstance(document_or_path, str) else _json(document_or_path)
        path = self._files.write(text, name)
        try:
            yield path
        finally:
            os.unlink(path)

    # State and faults.
    def set(self, key, value):
        """One value of the state, by its dotted path in the dump ("backlight.brightness")."""
        self._steer("set", {"key": key, "value": value}, key, _json(value))

    def load(self, document_or_path):
        """A whole or partial state document (a dict, a JSON text or a file's path)."""
        with self._file(document_or_path, "state") as path:
            if not self.panel:
                self._sim("load", path)
                return
            with open(path, encoding="utf-8", errors="surrogateescape") as f:
                text = f.read()
        self._steer("load", {"state": text})

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

    def crash(self, service, restart_after_ms=None):
        """The service's process dies at once, as on the device: holders get its death
        notification, the name is dropped; back after `restart_after_ms`, else at restart()."""
        after = [] if restart_after_ms is None else ["--restart-after", str(restart_after_ms)]
        self._steer("crash", {"service": service, "restart_after_ms": -1 if restart_after_ms is None
                              else restart_after_ms}, service, *after)

    def restart(self, service):
        """A crashed service's process again; returns once it is published again."""
        self._steer("restart", {"service": service}, service)

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
        body = {"method": method, **({"answers": list(answers)} if answers else {"clear": True})}
        words = [a if isinstance(a, str) and _ANSWER_WORD.fullmatch(a) else _json(a) for a in answers]
        self._steer("reply", body, method, *(words or ["--clear"]))

    def reset(self):
        """The device as it started: values, faults, queued answers, publications, call log."""
        self._steer("reset", {})

    def play(self, scenario_or_path):
        """Runs a scenario in the simulator; an AssertionError lists the unmet expectations."""
        with self._file(scenario_or_path, "scenario") as path:
            if self.panel:
                with open(path, encoding="utf-8", errors="surrogateescape") as f:
                    try:
                        scenario = json.load(f)
                    except ValueError as e:
                        pytest.fail(f"hmisvc sim play: {path}: not JSON: {e}", pytrace=False)
            else:
                r = self._sim("play", path, allow=(0, 1))
                report = (r.stdout + r.stderr).strip() if r.returncode == 1 else None
        if self.panel:
            # Held as long as the scenario lasts.
            status, answer = self._request("play", {"scenario": scenario}, allow=(200, 409), timeout=None)
            report = answer.get("error", "") if status == 409 else None
        if report is not None:
            raise AssertionError("scenario not met:\n" + report)

    def calls(self, service=None, method=None, program=None, since=None):
        """The calls served so far (after `since`, a mark), as dicts."""
        if self.panel:
            return self._request("log", query={"service": service, "method": method,
                                               "program": program, "since": since})[1]
        return json.loads(self._sim("calls", "--json", *self._filters(service=service, method=method,
                                                                        program=program, since=since)).stdout)

    def clear_calls(self):
        """Empties the call log (sequence numbers go on)."""
        self._steer("clear-calls", {})

    def mark(self):
        """The sequence number of the last call so far, to pass as `since`."""
        if self.panel:
            return int(self._request("mark")[1])
        return int(self._sim("mark").stdout)

    def wait_for_call(self, method, args=None, count=1, since=None, program=None, timeout=5.0):
        """The first `count` calls of METHOD (with these arguments, where given)
        after `since`, as soon as they came; an AssertionError at the timeout."""
        if self.panel:
            body = {k: v for k, v in dict(method=method, args=args, count=count, since=since,
                                          program=program, timeout=timeout).items() if v is not None}
            status, answer = self._request("wait-call", body, allow=(200, 409), timeout=timeout + 60)
            if status == 409 and "error" in answer:  # too many waits at once
                raise HmisvcError(f"hmisvc sim wait-call: {answer['error']}")
            met, came = status == 200, answer.get("calls", [])
        else:
            options = self._filters(args=None if args is None else _json(args), count=count, since=since,
                                    program=program, timeout=timeout)
            r = self._sim("wait-call", method, "--json", *options, allow=(0, 1))
            met, came = r.returncode == 0, json.loads(r.stdout or "[]")
        if met:
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
