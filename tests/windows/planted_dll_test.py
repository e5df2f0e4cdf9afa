"""quillonsvc.exe among planted DLLs, under Wine: copies of planted.dll stand beside it, in the
current folder and on the path, under the names of the DLLs that it needs and of others that
intruders like. Each copy that is loaded leaves a file behind.

unguarded.exe, in the same place, shows that the copies are loaded where nothing stands against it.
"""
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

import wine_lab
from wine_lab import HARMLESS, Prefix, program

import stewardry_lab  # noqa: E402  from the Linux lab, whose path wine_lab adds
from executable_test import DELAYED
from stewardry_lab import BOUND, SKIPPED, until

BANNER = "Quillon Stewardry Service %s started" % os.environ["STEWARDRY_VERSION"]
# Not in any table of the program's: what the DLLs of its tables, or Windows itself, load in turn.
OTHERS = ("apphelp bcrypt credui cryptbase cryptsp dbghelp dhcpcsvc dnsapi fwpuclnt imm32 mswsock "
          "netapi32 ntmarta profapi rasadhlp secur32 sspicli urlmon uxtheme version "
          "wbemcomn winmm wtsapi32").split()
NAMES = sorted([*DELAYED, *(name + ".dll" for name in OTHERS)])
# Wine would take its own DLL instead of most of the planted ones. Windows wouldn't.
AS_WINDOWS = {name: "n,b" for name in NAMES}


def setUpModule():
    global _prefix
    _prefix = Prefix()


def windows_path(path):
    return "Z:" + path.replace("/", "\\")


class Planted(unittest.TestCase):
    """Three folders with a full set of planted DLLs, and a program in the first."""

    def setUp(self):
        root = tempfile.mkdtemp(prefix="stewardry-planted-")
        self.addCleanup(shutil.rmtree, root)
        self.root = root
        self.beside, self.current, self.on_path = (
            os.path.join(root, name) for name in ("beside", "current", "path"))
        for folder in (self.beside, self.current, self.on_path):
            os.mkdir(folder)
            for name in NAMES:
                shutil.copy(program("libplanted.dll"), os.path.join(folder, name))
        self.log_path = os.path.join(_prefix.folder, "ProgramData", "Corvane", "Stewardry",
                                     "tavrinLog.log")

    def start(self, name, *words, **overrides):
        """Starts a copy of a program in the first folder. `overrides` adds to what Wine prefers for
        a DLL: an "n" is one from elsewhere, a "b" Wine's own, and nothing is none."""
        copy = shutil.copy(program(name), self.beside)
        if os.path.exists(self.log_path):
            os.unlink(self.log_path)
        child = subprocess.Popen(
            [*HARMLESS, "wine", copy, *words], cwd=self.current, stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env=dict(_prefix.env, WINEPATH=windows_path(self.on_path), WINEDLLOVERRIDES=";".join(
                "%s=%s" % each for each in {**AS_WINDOWS, **overrides}.items())))
        self.addCleanup(self.end, child)
        return child

    def end(self, child):
        if child.poll() is None:
            child.send_signal(signal.SIGKILL)
        child.wait(stewardry_lab.PATIENCE)

    def loaded(self):
        """The planted DLLs that were loaded, as folder/name."""
        return sorted(os.path.relpath(os.path.join(folder, name), self.root)[:-len(".loaded")]
                      for folder, _, names in os.walk(self.root)
                      for name in names if name.endswith(".loaded"))

    def log(self):
        if not os.path.exists(self.log_path):
            return ""
        with open(self.log_path, encoding="utf-8", errors="replace") as file:
            return file.read()

    def await_log(self, text):
        until(lambda: text in self.log() or self.loaded(), "%r in the service log" % text)
        self.assertEqual(self.loaded(), [])

    def remove_wlanapi(self):
        """Makes the system a Windows Server whose wireless feature isn't installed."""
        file = os.path.join(_prefix.folder, "windows", "system32", "wlanapi.dll")
        os.rename(file, file + ".away")
        self.addCleanup(os.rename, file + ".away", file)


class Unguarded(Planted):
    """What would happen to the service: these tell that the tests below can fail."""

    def test_a_program_is_safe_by_itself(self):
        child = self.start("unguarded.exe", *NAMES)
        self.assertEqual(child.wait(stewardry_lab.PATIENCE), 0)
        self.assertEqual(self.loaded(), ["beside/" + name for name in NAMES])

    def test_the_path_is_safe_by_itself(self):
        self.remove_wlanapi()
        os.unlink(os.path.join(self.beside, "wlanapi.dll"))
        os.unlink(os.path.join(self.current, "wlanapi.dll"))
        child = self.start("unguarded.exe", **{"wlanapi.dll": "n"})
        self.assertEqual(child.wait(stewardry_lab.PATIENCE), 0)
        self.assertEqual(self.loaded(), ["path/wlanapi.dll"])


class Service(Planted):
    def run_until_bound(self, **overrides):
        child = self.start("quillonsvc.exe", "ult", **overrides)
        self.await_log(BANNER)
        self.await_log(BOUND)
        self.assertIsNone(child.poll())
        self.end(child)
        self.assertEqual(self.loaded(), [])

    def test_a_planted_dll_is_loaded_by_the_foreground_run(self):
        self.run_until_bound()
        self.assertIn("Connected to internet via LAN", self.log())
        self.assertNotIn("WlanOpenHandle failed", self.log())

    def test_a_planted_dll_is_loaded_by_the_installer(self):
        child = self.start("quillonsvc.exe", "install")
        self.assertEqual(child.wait(stewardry_lab.PATIENCE), 0)
        self.assertEqual(self.loaded(), [])
        self.assertIn("SvcInstall", self.log())

    def test_a_missing_system_dll_is_taken_from_elsewhere(self):
        self.remove_wlanapi()
        self.run_until_bound(**{"wlanapi.dll": "n"})
        self.assertIn("WlanOpenHandle failed with error: 127", self.log())

    def test_a_missing_system_dll_stops_the_service(self):
        # 127, or 7f, is ERROR_PROC_NOT_FOUND.
        for dll, line in (("wlanapi", "WlanOpenHandle failed with error: 127 "),
                          ("setupapi", "SetupDiGetClassDevs failed with error: 7f "),
                          ("ole32", "OS Name: ; OS Version: ;")):
            with self.subTest(dll):
                self.run_until_bound(**{dll + ".dll": ""})
                self.assertIn(line, self.log())


if __name__ == "__main__":
    for tool in ("wine", "wineserver", "setpriv"):
        if shutil.which(tool) is None:
            print("skipped: there is no " + tool)
            sys.exit(SKIPPED)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that the prefix is ended
    stewardry_lab.run()
