"""The ground that the benchmarks stand on: a network namespace of their own (the service binds port
664), one processor for everything, a temporary folder, and the programs with their costs.

Waking another processor costs more than most of what is measured, so all programs of a run share
one. Every program started here is ended by its own id.
"""
import os
import shutil
import subprocess
import sys
import tempfile
import time

PATIENCE = 20.0  # seconds; a bound on a hang, never part of a result
SERVICE_PORT = 664
KVM_PORT = 22
HZ = os.sysconf("SC_CLK_TCK")
PAGE = os.sysconf("SC_PAGE_SIZE")

_ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
_MARK = "STEWARDRY_BENCH_NAMESPACE"
# The service waits for a network that is more than loopback. TEST-NET-1 (RFC 5737).
_NETWORK = (
    "link set lo up",
    "link add bench0 type veth peer name bench1",
    "link set bench0 up", "link set bench1 up",
    "addr add 192.0.2.10/24 dev bench0",
    "route add default via 192.0.2.1",
)


def program(name):
    """A built program's path: in STEWARDRY_BIN, or where preset `release` builds."""
    folder = os.environ.get("STEWARDRY_BIN") or os.path.join(_ROOT, "build", "release", "bin")
    path = os.path.join(folder, name)
    if not os.access(path, os.X_OK):
        sys.exit("%s is not built: cmake --build --preset release --target benches" % path)
    return path


def enter():
    """Moves this process into the namespace and onto one processor. Call first."""
    if os.environ.get(_MARK) != str(os.getpid()):
        _enter_namespace()
    for step in _NETWORK:
        subprocess.run(["ip"] + step.split(), check=True)
    stay_on_one_processor()


def _enter_namespace():
    ways = (["unshare", "--net"], ["unshare", "--user", "--map-root-user", "--net"])
    for way in ways:
        if subprocess.run(way + ["true"], capture_output=True).returncode == 0:
            os.environ[_MARK] = str(os.getpid())  # exec keeps the process id
            os.execvp(way[0], way + [sys.executable, "-B"] + sys.argv)
    sys.exit("no network namespace can be made here")


def stay_on_one_processor():
    """The last one: the first has most of the machine's own work."""
    os.sched_setaffinity(0, {max(os.sched_getaffinity(0))})


def until(probe, what):
    """The first true result of `probe`."""
    deadline = time.monotonic() + PATIENCE
    while time.monotonic() < deadline:
        result = probe()
        if result:
            return result
        time.sleep(0.002)
    sys.exit("waited in vain for " + what)


def is_listening(port):
    """Looks without a connect, which a relay would pass on."""
    wanted = ":%04X" % port
    with open("/proc/net/tcp") as table:
        rows = [line.split() for line in table.readlines()[1:]]
    return any(row[1].endswith(wanted) and row[3] == "0A" for row in rows)  # 0A: TCP_LISTEN


class Ground:
    """A temporary folder and the programs that run in it."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="stewardry-bench-")
        self.running = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for child in reversed(self.running):
            end(child)
        shutil.rmtree(self.folder)

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def write(self, name, text):
        with open(self.path(name), "w") as file:
            file.write(text)
        return self.path(name)

    def start(self, *words, lab=None):
        with open(self.path("output.txt"), "ab") as output:
            child = subprocess.Popen(
                words, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                env=dict(os.environ, STEWARDRY_LAB=lab or self.path("lab")))
        self.running.append(child)
        return child

    def start_firmware(self, lab, *words):
        """A far end behind the mailbox of a lab folder, which is made. `words` are its options."""
        os.makedirs(os.path.join(lab, "mailbox"))
        socket = os.path.join(lab, "mailbox", "bench")
        self.firmware = self.start(program("relay_ends"), "firmware", socket, *words, lab=lab)
        until(lambda: os.path.exists(socket), "the firmware's socket")

    def start_service(self, lab):
        return self.start(program("quillonsvc"), "ult", lab=lab)

    def end(self, child):
        end(child)
        self.running.remove(child)


def end(child):
    child.terminate()
    try:
        child.wait(PATIENCE)
    except subprocess.TimeoutExpired:
        child.kill()
        child.wait()


def processor_seconds(child):
    """What the program, its living children and those it has reaped have used."""
    return sum(_seconds_of(pid) for pid in [child.pid] + _children(child.pid))


def _children(pid):
    try:
        with open("/proc/%d/task/%d/children" % (pid, pid)) as file:
            return [int(word) for word in file.read().split()]
    except OSError:
        return []


def _seconds_of(pid):
    try:
        with open("/proc/%d/stat" % pid) as file:
            fields = file.read().rpartition(")")[2].split()
    except OSError:
        return 0.0
    return sum(int(field) for field in fields[11:15]) / HZ  # utime, stime, cutime, cstime
