# The environment of the end-to-end tests: a network namespace for the test program, and for each
# test a lab folder with the real firmware simulator and the real service in it.
#
# Every wait is for text that a program writes (orrin's trace, the service log), within PATIENCE.
# Processes are ended by their own id. A sanitizer's report in one fails the test.
import contextlib
import os
import pathlib
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
# The one adapter beside lo; its far end has no address. TEST-NET-1 (RFC 5737).
ADAPTER = {"name": "lab0", "address": "192.0.2.10", "mask": "255.255.255.0",
           "gateway": "192.0.2.1", "mac": "02:00:5E:10:00:01"}
STACKS = pathlib.Path(__file__).parents[2] / "scripts" / "print_stacks.py"
PATIENCE = 60.0  # seconds; a bound on a hang
SKIPPED = 77  # the exit code that ctest takes for "skipped"
BOUND = "Bind to port 664 successful"

_NETWORK = ("link set lo up", "link add wire0 type veth peer name {name} address {mac}",
            "link set wire0 up", "link set {name} up", "addr add {address}/24 dev {name}",
            "route add default via {gateway}")


def run():
    """A test program's entry: enters a namespace of its own, then runs the tests of the module."""
    if os.environ.get("STEWARDRY_E2E_NAMESPACE") != str(os.getpid()):
        _enter_namespace()
    for step in _NETWORK:
        subprocess.run(["ip"] + step.format(**ADAPTER).split(), check=True)
    unittest.main(module="__main__", verbosity=2)


def _enter_namespace():
    for way in (["unshare", "--net"], ["unshare", "--user", "--map-root-user", "--net"]):
        trial = subprocess.run(way + ["ip", "link", "add", "trial0", "type", "veth"],
                               capture_output=True, text=True)
        if trial.returncode == 0:
            os.environ["STEWARDRY_E2E_NAMESPACE"] = str(os.getpid())  # exec keeps the process id
            os.execvp(way[0], way + [sys.executable, "-B"] + sys.argv)
    skip("no network namespace can be made here: " + trial.stderr.strip())


def skip(why):
    print("skipped: " + why)
    sys.exit(SKIPPED)


def until(probe, what):
    """Returns the first true result of `probe`, which must come within PATIENCE."""
    deadline = time.monotonic() + PATIENCE
    while not (result := probe()):
        if time.monotonic() > deadline:
            subprocess.run([STACKS, str(os.getpid())], check=False)
            raise AssertionError("timed out waiting for " + what)
        time.sleep(0.01)
    return result


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
        return pathlib.Path(self.out).read_text(encoding="utf-8", errors="replace")

    def saw(self, text, after=0):
        """Waits until the output after offset `after` contains `text`. Returns the offset after it."""
        found = until(lambda: self.text().find(text, after) + 1, repr(text))
        return found - 1 + len(text)

    def saw_all(self, texts, after=0):
        """Waits until the output after an offset contains the texts in their order."""
        for text in texts:
            after = self.saw(text, after)

    def exit_code(self):
        """Waits until the program exits by itself."""
        return self.child.wait(PATIENCE)

    def end(self, number=signal.SIGTERM):
        if self.is_running:
            self.child.send_signal(number)
        code = self.exit_code()
        self.child.stdin.close()
        return code

    @property
    def is_running(self):
        return self.child.poll() is None


class Orrin(Process):
    """The firmware simulator. `where` are its command line's words for the listening address."""

    def __init__(self, lab, *where):
        super().__init__(lab, "orrin-" + where[-1], "orrin", *where)
        self.marks = 0
        self.saw("listening on ")

    def type(self, *lines):
        self.child.stdin.write("".join(line + "\n" for line in lines).encode())
        self.child.stdin.flush()

    def here(self):
        """Returns the trace's offset after all requests answered so far. The firmware answers a
        request first and traces it afterwards."""
        self.marks += 1
        mark = "done-%d" % self.marks  # not a command, so the trace quotes it
        self.type(mark)
        return self.saw('"%s"' % mark)

    def execute(self, *commands):
        """Types commands and waits until they have run. Returns the trace's offset before them."""
        before = self.here()
        self.type(*commands)
        self.here()
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
    def case(self, name):
        """One of several cases of a test, in a lab folder of its own."""
        with self.subTest(name):
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
        reports = [text for text in (self.read(process.err) for process in self.processes)
                      if re.search("Sanitizer|runtime error:", text)]
        if self.count_faults() > self.faults_before or reports:
            self._show()
        # An agent writes into the folder until it finds it missing, and exits then.
        removed = self.folder + ".removed"
        os.rename(self.folder, removed)
        shutil.rmtree(removed)
        self.assertEqual(reports, [])

    def _show(self):
        names = [name for process in self.processes for name in (process.out, process.err)]
        for name in names + [self.log_path(), self.path("eventlog.txt"), self.path("debug.txt")]:
            if lines := self.read(name).splitlines():
                print("---- %s, last lines" % os.path.basename(name), *lines[-60:], sep="\n")

    def add(self, process):
        """Ends the process with the test."""
        self.processes.append(process)
        return process

    def start(self, name, *words):
        return self.add(Process(self, "%s-%d" % (name, len(self.processes)), *words))

    def start_orrin(self, *commands):
        orrin = self.add(Orrin(self, "--socket", "mailbox0"))
        if commands:
            orrin.execute(*commands)
        return orrin

    def start_service(self, ready=BOUND):
        service = self.start("service", "quillonsvc", "uLt")
        if ready:
            self.logged(ready)
        return service

    def start_both(self, *commands):
        self.orrin = self.start_orrin(*commands)
        self.service = self.start_service()

    # What the programs have written into the lab folder.

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def log_path(self, name="tavrinLog.log"):
        return os.path.join(self.logs, name)

    def agent_path(self):
        """Returns the file in which the agent records the events it would play."""
        return self.path("agent.txt")

    def read(self, path):
        """Returns the text of a file, empty if there is none."""
        file = pathlib.Path(path)  # a "\r\n" is read as "\n"
        return file.read_text(encoding="utf-8", errors="replace") if file.is_file() else ""

    def write(self, text, *names):
        pathlib.Path(self.path(*names)).write_text(text, encoding="utf-8")

    def log(self):
        return self.read(self.log_path())

    def side_log(self):
        return self.read(self.log_path("tavrinKeyboardMouseLog.log"))

    def logged(self, text, count=1):
        """Waits until the service log contains `text` at least `count` times."""
        until(lambda: self.log().count(text) >= count, "%d times in the log: %r" % (count, text))

    def assert_order(self, text, parts):
        """Asserts that `text` contains all of `parts` in their order."""
        at = 0
        for part in parts:
            self.assertIn(part, text[at:], "missing, or out of order")
            at = text.index(part, at) + len(part)


# Clients.


def curl(path="/", *words, data=None):
    """Returns the answer's body. Raises if curl reports a failure or the status is not 200."""
    sends = ["--data-binary", "@-", "-H", "Content-Type: application/soap+xml"] if data else []
    return subprocess.run(
        ["curl", "-sSk", "--fail", "--noproxy", "*", "--max-time", str(PATIENCE), *sends, *words,
         "https://%s:%d%s" % (HOST, PORT, path)], input=data, stdout=subprocess.PIPE,
        check=True).stdout


def connect(port=PORT):
    """Opens a bare TCP connection to the port, without TLS."""
    return socket.create_connection((HOST, port), PATIENCE)


def receive(peer, size):
    got = b""
    while len(got) < size and (part := peer.recv(size - len(got))):
        got += part
    return got


def connection_is_dropped(port=PORT):
    """Connects and sends nothing. Returns whether the service closes the connection. Raises if the
    port is closed."""
    try:
        with connect(port) as peer:
            return peer.recv(1) == b""
    except ConnectionResetError:  # perhaps even before connect returns
        return True
