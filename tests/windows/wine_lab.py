# The end-to-end lab with the Windows service: one Wine prefix for the test program, with the
# mailbox driver installed; for each test the firmware simulator on TCP loopback, the bridge from it
# to the driver, and quillonsvc.exe.
#
# All of it runs in the program's network namespace, because a prefix's services run where its first
# program was started. Each process is ended by its id, the prefix by its own wineserver.
import atexit
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile

SOURCES = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCES / "tests" / "e2e"))

import stewardry_lab  # noqa: E402  the path above leads to it
from stewardry_lab import BOUND, LabTest, Orrin, Process, until  # noqa: E402

FIRMWARE_PORT = "17788"  # on the loopback of the program's own network namespace
# Wine needs one page at a fixed address, and one start in some thousands finds its heap there: no
# random addresses, where the system allows that.
_STEADY = ["setarch", "-R"]
if subprocess.run([*_STEADY, "true"], stderr=subprocess.DEVNULL, check=False).returncode != 0:
    _STEADY = []
# Runs a Wine program without the right to restart the machine.
HARMLESS = [*_STEADY, "setpriv", "--bounding-set=-sys_boot", "--inh-caps=-sys_boot"]
BOUNDED = ["timeout", "--kill-after=5", "120"]


# Wine 8 differs from Windows where later versions don't.
IS_WINE_8 = "wine-8." in subprocess.getoutput("wine --version")


def program(name):
    return os.path.join(os.environ["STEWARDRY_WINDOWS_BIN"], name)


class Prefix:
    """One Wine prefix. `folder` is its drive C."""

    def __init__(self):
        self.root = tempfile.mkdtemp(prefix="stewardry-wine-")
        self.folder = os.path.join(self.root, "drive_c")
        self.env = dict(os.environ, WINEPREFIX=self.root, WINEDEBUG="-all", WINEARCH="win64",
                        DISPLAY="")
        atexit.register(self.end)
        self.run("wineboot", "-i")
        # The service lies in a folder with a blank. Beside the folder is a program that would start
        # instead of the service or its agent if their paths were taken for command lines.
        home = os.path.join(self.folder, "Stewardry Service")
        self.service = os.path.join(home, "quillonsvc.exe")
        os.mkdir(home)
        for name in ("quillonsvc.exe", "KVM_Agent.exe"):
            shutil.copy(program(name), home)
        shutil.copy(program("scm.exe"), os.path.join(self.folder, "Stewardry.exe"))
        # Wine would end the services after each command without a program that keeps running.
        self.keeper = subprocess.Popen([*HARMLESS, "wine", program("winlogon.exe")], env=self.env,
                                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)

    def run(self, *words):
        """Runs a Windows program. Returns its output and its exit code."""
        done = subprocess.run([*BOUNDED, *HARMLESS, "wine", *words], env=self.env, check=False,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL)
        return done.stdout.decode(errors="replace").replace("\r", ""), done.returncode

    def end(self):
        self.keeper.kill()
        self.keeper.wait()
        for word in ("-k", "-w"):
            subprocess.run([*BOUNDED, "wineserver", word], env=self.env, check=False)
        shutil.rmtree(self.root, ignore_errors=True)


_prefix = None


def prefix():
    """Returns the prefix, created at its first use, with the driver installed."""
    global _prefix
    if _prefix is None:
        _prefix = Prefix()
        text = setup("install")
        assert text == "installed\n", text
        until(lambda: _prefix.run(program("tavrin_setup.exe"), "status")[1] == 0, "the driver")
    return _prefix


def setup(*words):
    """Runs the driver's setup program. Returns its output."""
    text, code = prefix().run(program("tavrin_setup.exe"), *words)
    assert code == 0, text
    return text


class WineProcess(Process):
    """A Windows program. Its end works like TerminateProcess."""

    def start(self, lab, words, out, err):
        return subprocess.Popen([*HARMLESS, "wine", program(words[0]), *words[1:]],
                                stdin=subprocess.PIPE, stdout=out, stderr=err, env=prefix().env)

    def end(self, number=signal.SIGKILL):
        return super().end(number)


class WineLabTest(LabTest):
    """LabTest with the service under Wine. The tests of the Linux lab that use only the firmware's
    trace, the log and the sockets run here too."""

    def _open(self):
        super()._open()
        self.bridge = None
        self.logs = os.path.join(prefix().folder, "ProgramData", "Corvane", "Stewardry")
        shutil.rmtree(self.logs, ignore_errors=True)
        pathlib.Path(self.agent_path()).unlink(missing_ok=True)

    def _close(self):
        try:
            self.end_programs()
        finally:
            super()._close()

    def end_programs(self):
        """Ends the Wine programs, the bridge last, while the firmware is suspended. An answer to a
        request after its program's end would make Wine's driver host write to freed memory."""
        firmwares = [p.child for p in self.processes if isinstance(p, Orrin) and p.is_running]
        for firmware in firmwares:
            firmware.send_signal(signal.SIGSTOP)
        try:
            for process in reversed(self.processes):
                if isinstance(process, WineProcess) and process is not self.bridge:
                    process.end()
            if self.bridge:
                self.await_driver("handles 0, reads 0, requests 0")
                self.bridge.end()
                self.await_driver("bridge no")
        finally:
            for firmware in firmwares:
                firmware.send_signal(signal.SIGCONT)

    def await_driver(self, status):
        until(lambda: status in setup("status"), status)

    def agent_path(self):
        return os.path.join(prefix().folder, "ProgramData", "KVM_Agent.txt")

    def kill_agent(self, number):
        prefix().run("taskkill", "/f", "/pid", str(number))

    def start_wine(self, name, *words):
        return self.add(WineProcess(self, "%s-%d" % (name, len(self.processes)), *words))

    def start_orrin(self, *commands):
        orrin = self.add(Orrin(self, "--tcp", FIRMWARE_PORT))
        self.bridge = self.start_wine("bridge", "tavrin_bridge.exe", FIRMWARE_PORT)
        orrin.saw("a mailbox end has connected")
        self.bridge.saw("joined")
        if commands:
            orrin.execute(*commands)
        return orrin

    def start_service(self, ready=BOUND):
        service = self.start_wine("service", prefix().service, "ult")
        if ready:
            self.logged(ready)
        return service

    def start_both(self, *commands):
        self.orrin = self.start_orrin(*commands)
        self.service = self.start_service()


def run():
    """Runs the test program, or skips it if it can't run here."""
    for tool in ("wine", "wineserver", "setpriv", os.path.join(stewardry_lab.BIN, "orrin")):
        if shutil.which(tool) is None:
            stewardry_lab.skip("there is no " + tool)
    # A test would catch SystemExit; this ends the program, and with it the prefix.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    stewardry_lab.run()
