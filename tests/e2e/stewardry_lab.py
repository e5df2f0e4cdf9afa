"""The ground that the end-to-end tests stand on: a network namespace for the test program, and for
each test a lab folder with the real firmware simulator and the real service in it.

Every wait is bounded and looks at what the programs have written (orrin's trace, the service log);
nothing here measures time. Processes are ended by their own id, and what they complained of on
standard error fails the test: a sanitizer's report must not go unseen.
"""
import contextlib
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

BIN = os.environ.get("STEWARDRY_BIN", "")
PORT = 664
HOST = "127.0.0.1"
# The one adapter beside lo; its far end stays without an address. TEST-NET-1 (RFC 5737).
ADAPTER = {"name": "lab0", "address": "192.0.2.10", "mask": "255.255.255.0",
           "gateway": "192.0.2.1", "mac": "02:00:5E:10:00:01"}
PATIENCE = 30.0  # seconds; a bound on a hang, slow enough for a sanitizer on a busy machine
SKIPPED = 77  # what ctest takes for "skipped"
BOUND = "Bind to port 664 successful"

_MARK = "STEWARDRY_E2E_NAMESPACE"
_SANITIZER = re.compile(r"Sanitizer|runtime error:")
_NETWORK = (
    "link set lo up",
    "link add wire0 type veth peer name {name} address {mac}",
    "link set wire0 up", "link set {name} up",
    "addr add {address}/24 dev {name}",
    "route add default via {gateway}",
)


def run():
    """A test program's entry: enters a namespace of its own, then runs the tests of the module."""
    if not BIN:
        sys.exit("STEWARDRY_BIN must name the folder of the built programs")
    if os.environ.get(_MARK) != str(os.getpid()):
        _enter_namespace()
    for step in _NETWORK:
        subprocess.run(["ip"] + step.format(**ADAPTER).split(), check=True)
    unittest.main(module="__main__", verbosity=2)


def _enter_namespace():
    ways = (["unshare", "--net"], ["unshare", "--user", "--map-root-user", "--net"])
    for way in ways:
        trial = subprocess.run(way + ["ip", "link", "add", "trial0", "type", "veth"],
                               capture_output=True, text=True)
        if trial.returncode == 0:
            os.environ[_MARK] = str(os.getpid())  # exec keeps the process id
            os.execvp(way[0], way + [sys.executable, "-B"] + sys.argv)
    print("skipped: no network namespace can be made here: " + trial.stderr.strip())
    sys.exit(SKIPPED)


def until(probe, what):
    """The first true result of `probe`, which must come within PATIENCE."""
    deadline = time.monotonic() + PATIENCE
    while time.monotonic() < deadline:
        result = probe()
        if result:
            return result
        time.sleep(0.01)
    raise AssertionError("waited in vain for " + what)


class Process:
    """A program with its output in files of the lab folder and its standard input on a pipe."""

    def __init__(self, lab, name, *words):
        self.out, self.err = (os.path.join(lab.folder, name + end) for end in (".out", ".err"))
        with open(self.out, "ab") as out, open(self.err, "ab") as err:
            self.child = self.start(lab, words, out, err)

    def start(self, lab, words, out, err):
        return subprocess.Popen(
            [os.path.join(BIN, words[0]), *words[1:]], stdin=subprocess.PIPE, stdout=out,
            stderr=err, env=dict(os.environ, STEWARDRY_LAB=lab.folder))

    def text(self):
        with open(self.out, encoding="utf-8", errors="replace") as file:
            return file.read()

    def saw(self, text, after=0):
        """Waits until the output behind offset `after` holds `text`; the offset behind it."""
        found = until(lambda: self.text().find(text, after) + 1, repr(text))
        return found - 1 + len(text)

    def saw_all(self, texts, after=0):
        """Waits until the output behind an offset holds the texts in their order. What a program
        has caused may be seen before what it says of it."""
        for text in texts:
            after = self.saw(text, after)

    def exit_code(self):
        """Waits for the program's own end."""
        return self.child.wait(PATIENCE)

    def end(self, number=signal.SIGTERM):
        if self.child.poll() is None:
            self.child.send_signal(number)
        code = self.exit_code()
        self.child.stdin.close()
        return code

    @property
    def is_running(self):
        return self.child.poll() is None


class Orrin(Process):
    """`where` says what it listens on, as its command line takes it."""

    def __init__(self, lab, *where):
        super().__init__(lab, "orrin-" + where[-1], "orrin", *where)
        self.marks = 0
        self.saw("listening on ")

    def tell(self, *commands):
        """Types commands and waits until they have run; the trace's offset before them."""
        before = len(self.text())
        self.marks += 1
        mark = "done-%d" % self.marks  # no command, so the prompt names it in the trace
        self.child.stdin.write("\n".join([*commands, mark, ""]).encode())
        self.child.stdin.flush()
        self.saw('"%s"' % mark, before)
        return before


class LabTest(unittest.TestCase):
    """One lab folder a test. A failing test prints the traces of everything that ran in it."""

    def setUp(self):
        self._open()
        self.addCleanup(self._close)

    def run(self, result=None):
        self.count_faults = lambda: len(result.failures) + len(result.errors)
        return super().run(result)

    @contextlib.contextmanager
    def case(self, *words):
        """One of several cases of a test, in a lab folder of its own."""
        with self.subTest(*words):
            self._close()
            self._open()
            yield

    def _open(self):
        self.faults_before = self.count_faults()
        self.folder = tempfile.mkdtemp(prefix="stewardry-")
        self.logs = self.path("ProgramData", "Corvane", "Stewardry")
        self.processes = []

    def _close(self):
        for process in reversed(self.processes):
            process.end()
        complaints = [text for text in map(lambda p: self.read(p.err), self.processes)
                      if _SANITIZER.search(text)]
        if self.count_faults() > self.faults_before or complaints:
            self._show()
        shutil.rmtree(self.folder)
        self.assertEqual(complaints, [])

    def _show(self):
        names = [p.out for p in self.processes] + [p.err for p in self.processes]
        for name in names + [self.log_path(), self.path("eventlog.txt"), self.path("debug.txt")]:
            lines = self.read(name).splitlines()
            if lines:
                print("---- %s, last lines" % os.path.basename(name))
                print("\n".join(lines[-60:]))

    def start(self, name, *words):
        process = Process(self, "%s-%d" % (name, len(self.processes)), *words)
        self.processes.append(process)
        return process

    def start_orrin(self, socket_name="mailbox0", *commands):
        orrin = Orrin(self, "--socket", socket_name)
        self.processes.append(orrin)
        if commands:
            orrin.tell(*commands)
        return orrin

    def start_service(self, ready=BOUND):
        service = self.start("service", "quillonsvc", "ult")
        if ready:
            self.logged(ready)
        return service

    def start_both(self, *commands):
        self.orrin = self.start_orrin("mailbox0", *commands)
        self.service = self.start_service()

    # What the programs have left in the lab folder.

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def log_path(self, name="tavrinLog.log"):
        return os.path.join(self.logs, name)

    def read(self, path):
        if not os.path.isfile(path):
            return ""
        with open(path, encoding="utf-8", errors="replace", newline="") as file:
            return file.read().replace("\r\n", "\n")

    def write(self, text, *names):
        os.makedirs(os.path.dirname(self.path(*names)), exist_ok=True)
        with open(self.path(*names), "w", encoding="utf-8") as file:
            file.write(text)

    def agent_path(self):
        """Where the agent writes down what it would play."""
        return self.path("agent.txt")

    def log(self):
        return self.read(self.log_path())

    def side_log(self):
        return self.read(self.log_path("tavrinKeyboardMouseLog.log"))

    def logged(self, text, count=1):
        """Waits until the service log holds `text` at least `count` times."""
        until(lambda: self.log().count(text) >= count, "%d times in the log: %r" % (count, text))

    def power_lines(self):
        return self.read(self.path("power.txt")).splitlines()

    def assert_order(self, text, parts):
        """Each of `parts` stands in `text` behind the one before it."""
        at = 0
        for part in parts:
            found = text.find(part, at)
            self.assertGreaterEqual(found, 0, "missing, or out of order: %r" % part)
            at = found + len(part)


# Clients.


def curl(path="/", *words, data=None):
    """The answer's body; raises when curl reports a failure or the status isn't 200."""
    answer = curl_process(path, *words, "--fail", data=data)
    out, err = answer.communicate(data, PATIENCE * 2)
    if answer.returncode != 0:
        raise AssertionError("curl ended with %d: %s" % (answer.returncode, err.decode()))
    return out


def curl_process(path, *words, data=None):
    sends = ["--data-binary", "@-", "-H", "Content-Type: application/soap+xml"] if data else []
    return subprocess.Popen(
        ["curl", "-sSk", "--noproxy", "*", "--max-time", str(PATIENCE), *sends, *words,
         "https://%s:%d%s" % (HOST, PORT, path)],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def connect():
    """A bare TCP connection to the port: what the relay moves, without TLS around it."""
    peer = socket.create_connection((HOST, PORT), PATIENCE)
    peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return peer


def receive(peer, size):
    got = b""
    while len(got) < size:
        part = peer.recv(size - len(got))
        if not part:
            break
        got += part
    return got


def is_dropped(peer):
    """True when the far end has closed or reset the connection; anything sent is an error."""
    try:
        return peer.recv(1) == b""
    except ConnectionResetError:
        return True


def knock_is_dropped():
    """Connects and says nothing. The listener's end may reset the peer before connect returns; a
    connection refused, with nobody listening, is an error."""
    try:
        with connect() as peer:
            return is_dropped(peer)
    except ConnectionResetError:
        return True
