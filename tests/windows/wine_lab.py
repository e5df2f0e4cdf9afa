"""The end-to-end lab with the Windows service in it: one Wine prefix for the test program, with the
mailbox driver installed; for each test the firmware simulator on TCP loopback, the bridge that joins
it to the driver, and quillonsvc.exe.

All of it lives in the program's network namespace, because a prefix's services run where its first
program was started. Nothing under Wine may start the machine anew: the capability is dropped, and no
library of Wine's asks for it. Everything is ended by its own id, the prefix by its own wineserver.
"""
import atexit
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time

SOURCES = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCES / "tests" / "e2e"))

import stewardry_lab  # noqa: E402  the path above leads to it
from stewardry_lab import BOUND, LabTest, Orrin, Process, until  # noqa: E402

WINDOWS_BIN = os.environ.get("STEWARDRY_WINDOWS_BIN", "")
FIRMWARE_PORT = 17788  # on the loopback of the program's own network namespace
SERVICE = "QuillonSvc"
STOPPED = "SERVICE_STOPPED"
RUNNING = "SERVICE_RUNNING, accepts 0x101, exit 0/0, check point 0"
# Addresses that aren't random, where the system allows it: Wine wants one page at a fixed address,
# and one start in some thousands finds its heap there.
STEADY = ["setarch", "-R"]
if subprocess.run([*STEADY, "true"], stderr=subprocess.DEVNULL, check=False).returncode != 0:
    STEADY = []
# What a Wine program runs as: without the right to start the machine anew.
HARMLESS = [*STEADY, "setpriv", "--bounding-set=-sys_boot", "--inh-caps=-sys_boot"]
BOUNDED = ["timeout", "--kill-after=5", "120"]


class Prefix:
    """One Wine prefix. `folder` is its drive C."""

    def __init__(self):
        self.root = tempfile.mkdtemp(prefix="stewardry-wine-")
        self.folder = os.path.join(self.root, "drive_c")
        self.env = dict(os.environ, WINEPREFIX=self.root, WINEDEBUG="-all", WINEARCH="win64",
                        DISPLAY="")
        atexit.register(self.end)
        self.run("wineboot", "-i")
        # Without a program of its own in it, Wine ends its services with each command.
        self.keeper = subprocess.Popen([*HARMLESS, "wine", program("winlogon.exe")], env=self.env,
                                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)

    def run(self, *words):
        """What a Windows program prints, and its exit code."""
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


def program(name):
    return os.path.join(WINDOWS_BIN, name)


_prefix = None


def prefix():
    """The program's prefix, made at its first use, with the driver installed."""
    global _prefix
    if _prefix is None:
        _prefix = Prefix()
        told = setup("install")
        assert told == "installed\n", told
    return _prefix


def setup(*words):
    """What the driver's setup program answers."""
    told, code = prefix().run(program("tavrin_setup.exe"), *words)
    assert code == 0, told
    return told


class WineProcess(Process):
    """A Windows program. To end one from outside is what TerminateProcess would do."""

    def start(self, lab, words, out, err):
        return subprocess.Popen([*HARMLESS, "wine", program(words[0]), *words[1:]],
                                stdin=subprocess.PIPE, stdout=out, stderr=err, env=prefix().env)

    def end(self, number=signal.SIGKILL):
        return super().end(number)


class WineLabTest(LabTest):
    """LabTest with the service under Wine; every test of the Linux lab that looks at nothing but
    the firmware's trace, the log and the sockets runs here too."""

    def _open(self):
        super()._open()
        self.logs = os.path.join(prefix().folder, "ProgramData", "Corvane", "Stewardry")
        shutil.rmtree(self.logs, ignore_errors=True)
        pathlib.Path(self.agent_path()).unlink(missing_ok=True)

    def _close(self):
        try:
            if not self.state().startswith(STOPPED):
                self.scm("control", SERVICE, "1")
                self.await_state(STOPPED)
        finally:
            self.end_programs()
            super()._close()

    def end_programs(self):
        """Ends what runs under Wine one after the other, while the firmware holds its breath. The
        cancel of a request that is answered after its program's end reaches Wine's driver host all
        the same, which writes to the request's freed memory and sooner or later dies of it."""
        firmwares = [p.child for p in self.processes if isinstance(p, Orrin) and p.is_running]
        for firmware in firmwares:
            firmware.send_signal(signal.SIGSTOP)
        for process in reversed(self.processes):
            if isinstance(process, WineProcess) and process.is_running:
                time.sleep(0.1)  # the driver passes on what it has heard of the one before
                process.end()
        for firmware in firmwares:
            firmware.send_signal(signal.SIGCONT)

    def agent_path(self):
        return os.path.join(prefix().folder, "ProgramData", "KVM_Agent.txt")

    def kill_agent(self, number):
        prefix().run("taskkill", "/f", "/pid", str(number))

    def start_wine(self, name, *words):
        process = WineProcess(self, "%s-%d" % (name, len(self.processes)), *words)
        self.processes.append(process)
        return process

    def start_orrin(self, *commands):
        orrin = Orrin(self, "--tcp", str(FIRMWARE_PORT))
        self.processes.append(orrin)
        self.bridge = self.start_wine("bridge", "tavrin_bridge.exe", str(FIRMWARE_PORT))
        orrin.saw("a mailbox end has connected")
        self.bridge.saw("joined")
        if commands:
            orrin.tell(*commands)
        return orrin

    def start_service(self, ready=BOUND):
        service = self.start_wine("service", "quillonsvc.exe", "ult")
        if ready:
            self.logged(ready)
        return service

    def start_both(self, *commands):
        self.orrin = self.start_orrin(*commands)
        self.service = self.start_service()

    # The service manager.

    def scm(self, *words):
        return prefix().run(program("scm.exe"), *words)[0]

    def state(self):
        """What the manager says of the service; stopped, too, when it isn't installed."""
        told = self.scm("status", SERVICE)
        return STOPPED if told.startswith("error 1060") else told

    def await_state(self, wanted):
        until(lambda: self.state().startswith(wanted), wanted)

    def start_managed(self, *commands):
        self.orrin = self.start_orrin(*commands)
        told = self.scm("start", SERVICE)
        self.assertNotIn("error", told)
        self.logged(BOUND)


def run():
    """A test program's entry; says why nothing can be run here, if so."""
    for tool in ("wine", "wineserver", "setpriv"):
        if shutil.which(tool) is None:
            print("skipped: there is no " + tool)
            sys.exit(stewardry_lab.SKIPPED)
    if not os.path.exists(os.path.join(stewardry_lab.BIN, "orrin")):
        print("skipped: the Linux firmware simulator isn't built: " + stewardry_lab.BIN)
        sys.exit(stewardry_lab.SKIPPED)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that the prefix is ended
    stewardry_lab.run()
