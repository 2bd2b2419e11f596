"""Page inspection: the item tree of a Qt Quick application the fixtures
started, with no code in the application.

Every application started by hmisvc_app gets an environment that asks Qt to
load the plugin hmisvcinspect (QT_QPA_GENERIC_PLUGINS, QT_PLUGIN_PATH) and
names a socket in a directory of this user's only (HMISVC_INSPECT). A Qt
application connects there as its QGuiApplication starts; other programs
never do, and nothing else is loaded in them. `app.page` takes the
connection on first use.

    item = app.page.find("brightness")       # by objectName
    item = app.page.find(text="Wi-Fi networks")
    item.get("value"); item.wait("value", 10); item.set("value", 3)
    item.click(); item.slide(10); item.type("text")
    app.page.screenshot("page.png")

Each request is bounded: a name that matches nothing, a wait that times out,
an application that ended or does not answer fail the test at once with an
AssertionError naming what it found and the application's output.
"""
import glob
import json
import os
import select
import shutil
import socket
import struct
import tempfile
import time

# How long app.page waits for the application to connect.
CONNECT_TIMEOUT = 10.0
# Beyond a request's own time limit: a page busy with a long frame still answers.
ANSWER_MARGIN = 10.0
PLUGIN = "hmisvcinspect"


def plugin_path():
    """The directory holding generic/libhmisvcinspect.so: $HMISVC_QT_PLUGIN_PATH,
    else under the prefix this package or `hmisvc` is installed in, or /usr;
    None where it is nowhere."""
    if os.environ.get("HMISVC_QT_PLUGIN_PATH"):
        return os.environ["HMISVC_QT_PLUGIN_PATH"]
    here = os.path.dirname(os.path.abspath(__file__))
    prefixes = [os.path.normpath(os.path.join(here, "../../../.."))]
    cli = os.environ.get("HMISVC_CLI") or shutil.which("hmisvc")
    if cli:
        prefixes.append(os.path.normpath(os.path.join(os.path.dirname(os.path.realpath(cli)), "..")))
    for prefix in prefixes + ["/usr"]:
        for found in glob.glob(os.path.join(prefix, "lib", "*", "qt6", "plugins", "generic", f"lib{PLUGIN}.so")):
            return os.path.dirname(os.path.dirname(found))
    return None


class Listener:
    """The socket an application's page connects to, in a directory of its own."""

    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="hmisvc-page.")
        self.path = os.path.join(self.dir, "inspect.sock")
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.bind(self.path)
        self.socket.listen(4)

    def environment(self, env):
        """ENV (a mapping) with inspection asked for, where the plugin is
        installed (elsewhere Qt would warn of it in every Qt program)."""
        env = dict(env)
        where = plugin_path()
        if where:
            plugins = [p for p in env.get("QT_QPA_GENERIC_PLUGINS", "").split(",") if p]
            env["QT_QPA_GENERIC_PLUGINS"] = ",".join(plugins + [PLUGIN] if PLUGIN not in plugins else plugins)
            env["QT_PLUGIN_PATH"] = os.pathsep.join(p for p in (where, env.get("QT_PLUGIN_PATH")) if p)
            env["HMISVC_INSPECT"] = self.path
        return env

    def close(self):
        self.socket.close()
        try:
            os.unlink(self.path)
            os.rmdir(self.dir)
        except OSError:
            pass


class Page:
    """The application's Qt Quick page, reached over its inspection socket."""

    def __init__(self, app, listener):
        self._app = app
        self._socket = self._accept(listener)
        self._buffer = b""

    def _fail(self, what):
        __tracebackhide__ = True
        raise AssertionError(f"{self._app.describe()}: {what}; it printed:\n{self._app.output()}")

    def _ended(self):
        status = self._app.poll()
        return None if status is None else f"it ended with status {status}"

    def _accept(self, listener):
        __tracebackhide__ = True
        deadline = time.monotonic() + CONNECT_TIMEOUT
        while self._app._reports is not None:
            left = deadline - time.monotonic()
            ready = select.select([listener.socket, self._app._reports], [], [], max(left, 0))[0]
            if listener.socket not in ready:
                break
            connection, _ = listener.socket.accept()
            _, uid, _ = struct.unpack("3i", connection.getsockopt(
                socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i")))
            # Only a process of this user is taken for the application.
            if uid == os.getuid():
                return connection
            connection.close()
        why = self._ended() or f"not within {CONNECT_TIMEOUT} s"
        self._fail(f"its page could not be reached ({why}): is it a Qt Quick application, and is "
                   f"{PLUGIN} installed (qml6-module-hmisvc, or $HMISVC_QT_PLUGIN_PATH)?")

    def request(self, bound=0.0, **request):
        """Sends REQUEST; the answer (a dict) once it came, within BOUND seconds
        and a margin; a failed one fails the test."""
        __tracebackhide__ = True  # a failure points at the test's own line
        answer = self._exchange(request, bound + ANSWER_MARGIN)
        if not answer.get("ok"):
            self._fail(answer.get("error", "the request failed"))
        return answer

    def _exchange(self, request, bound):
        __tracebackhide__ = True
        try:
            self._socket.sendall(json.dumps(request).encode() + b"\n")
        except OSError as e:
            self._fail(f"its page is gone ({self._ended() or e})")
        while b"\n" not in self._buffer:
            if not select.select([self._socket], [], [], bound)[0]:
                self._fail(f"its page did not answer {request['op']} within {bound} s "
                           f"({self._ended() or 'it hangs'})")
            data = self._socket.recv(65536)
            if not data:
                self._fail(f"its page closed the connection ({self._ended() or 'it is still running'})")
            self._buffer += data
        line, self._buffer = self._buffer.split(b"\n", 1)
        return json.loads(line)

    def find(self, name=None, text=None):
        """The item of this objectName (or with this visible text); a miss fails
        the test with the nearest names on the page."""
        __tracebackhide__ = True
        if (name is None) == (text is None):
            raise TypeError("find: give a name or text=")
        query = {"name": name} if name is not None else {"text": text}
        return Item(self, query, self.request(op="find", **query))

    def screenshot(self, path):
        """Saves the page's window as a PNG image at PATH."""
        __tracebackhide__ = True
        self.request(op="screenshot", path=os.path.abspath(os.fspath(path)))

    def tree(self):
        """The item tree as text, an item a line (class, objectName, text)."""
        return self.request(op="tree")["tree"]

    def close(self):
        self._socket.close()


class Item:
    """One item on the page, found again by its name or text at each request."""

    def __init__(self, page, query, found):
        self._page = page
        self._query = query
        self.description = f"{found['class']} {json.dumps(next(iter(query.values())))}"

    def __repr__(self):
        return f"<{self.description}>"

    def _request(self, op, bound=0.0, **request):
        __tracebackhide__ = True
        return self._page.request(bound, op=op, **self._query, **request)

    def get(self, prop):
        """The property's value (a number, string, bool, list, dict or None)."""
        __tracebackhide__ = True
        return self._request("get", prop=prop)["value"]

    def set(self, prop, value):
        """Writes the property; its value after."""
        __tracebackhide__ = True
        return self._request("set", prop=prop, value=value)["value"]

    def wait(self, prop, value, timeout=5.0):
        """Returns once the property is VALUE (answered on its change signal);
        at the timeout an AssertionError naming the value it had."""
        __tracebackhide__ = True
        answer = self._page._exchange({"op": "wait", **self._query, "prop": prop, "value": value,
                                       "timeout": timeout}, timeout + ANSWER_MARGIN)
        if answer.get("ok"):
            return answer["value"]
        if answer.get("timeout"):
            raise AssertionError(f"{self.description}: {prop} is {answer['value']!r}, "
                                 f"not {value!r}, after {timeout} s")
        self._page._fail(answer.get("error", "wait failed"))

    def click(self):
        """A left mouse press and release at the item's centre."""
        __tracebackhide__ = True
        self._request("click")

    def slide(self, value):
        """Moves a slider to VALUE as a user's drag ends (value, then moved());
        its value after."""
        __tracebackhide__ = True
        return self._request("slide", value=value)["value"]

    def type(self, text):
        """Gives the item the focus and types TEXT, a key event each character."""
        __tracebackhide__ = True
        self._request("type", keys=text)
