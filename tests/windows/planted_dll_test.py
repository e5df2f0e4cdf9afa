# quillonsvc.exe among planted DLLs, under Wine: copies of planted.dll lie beside it, in the current
# folder and on the path, under the names of the DLLs that it needs and of other likely targets.
# Each copy that is loaded creates a file. unguarded.exe proves that they load without a guard.
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

import wine_lab
from wine_lab import HARMLESS, Prefix, program

import stewardry_lab  # from the Linux lab, whose path wine_lab adds
from executable_test import DELAYED
from stewardry_lab import BOUND, until

# Not imported by the program: DLLs that its DLLs or Windows itself load in turn.
OTHERS = ("apphelp bcrypt credui cryptbase cryptsp dbghelp dhcpcsvc dnsapi fwpuclnt imm32 mswsock "
          "netapi32 ntmarta profapi rasadhlp secur32 sspicli urlmon uxtheme version "
          "wbemcomn winmm wtsapi32").split()
NAMES = sorted(name + ".dll" for name in [*DELAYED, *OTHERS])


def setUpModule():
    global _prefix
    _prefix = Prefix()


class Planted(unittest.TestCase):
    """Three folders with a full set of planted DLLs, and a program in the first."""

    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="stewardry-planted-")
        self.addCleanup(shutil.rmtree, self.root)
        for folder in ("beside", "current", "path"):
            os.mkdir(os.path.join(self.root, folder))
            for name in NAMES:
                shutil.copy(program("libplanted.dll"), os.path.join(self.root, folder, name))
        self.log_path = pathlib.Path(_prefix.folder, "ProgramData", "Corvane", "Stewardry",
                                     "tavrinLog.log")

    def start(self, name, *words, **overrides):
        """Starts a copy of a program in the first folder. `overrides` adds to Wine's preferences
        for a DLL: "n" is a native one, "b" Wine's own, and "" none. By default Wine, unlike
        Windows, would prefer most of its own DLLs to the planted ones."""
        copy = shutil.copy(program(name), os.path.join(self.root, "beside"))
        self.log_path.unlink(missing_ok=True)
        preferred = {**dict.fromkeys(NAMES, "n,b"), **overrides}
        child = subprocess.Popen(
            [*HARMLESS, "wine", copy, *words], cwd=os.path.join(self.root, "current"),
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env=dict(_prefix.env, WINEPATH="Z:" + os.path.join(self.root, "path").replace("/", "\\"),
                     WINEDLLOVERRIDES=";".join("%s=%s" % each for each in preferred.items())))
        self.addCleanup(child.wait, stewardry_lab.PATIENCE)
        self.addCleanup(child.kill)
        return child

    def run_unguarded(self, *words, **overrides):
        child = self.start("unguarded.exe", *words, **overrides)
        self.assertEqual(child.wait(stewardry_lab.PATIENCE), 0)

    def loaded(self):
        """Returns the planted DLLs that were loaded, as folder/name."""
        return sorted(os.path.relpath(os.path.join(folder, name), self.root)[:-len(".loaded")]
                      for folder, _, names in os.walk(self.root)
                      for name in names if name.endswith(".loaded"))

    def log(self):
        return self.log_path.read_text(errors="replace") if self.log_path.exists() else ""

    def remove_wlanapi(self):
        """Removes a DLL, like a Windows Server without its wireless feature."""
        file = os.path.join(_prefix.folder, "windows", "system32", "wlanapi.dll")
        os.rename(file, file + ".away")
        self.addCleanup(os.rename, file + ".away", file)


class Unguarded(Planted):
    """Proves that the tests below can fail."""

    def test_planted_dlls_beside_a_program_are_loaded(self):
        self.run_unguarded(*NAMES)
        self.assertEqual(self.loaded(), ["beside/" + name for name in NAMES])

    def test_a_planted_dll_on_the_path_is_loaded(self):
        self.remove_wlanapi()
        for folder in ("beside", "current"):
            os.unlink(os.path.join(self.root, folder, "wlanapi.dll"))
        self.run_unguarded(**{"wlanapi.dll": "n"})
        self.assertEqual(self.loaded(), ["path/wlanapi.dll"])


class Service(Planted):
    def run_until_bound(self, **overrides):
        child = self.start("quillonsvc.exe", "ult", **overrides)
        until(lambda: BOUND in self.log() or self.loaded(), "the open port")
        self.assertIsNone(child.poll())
        child.kill()
        child.wait(stewardry_lab.PATIENCE)
        self.assertEqual(self.loaded(), [])

    def test_a_foreground_run_loads_system_dlls_only(self):
        self.run_until_bound()
        self.assertIn("Connected to internet via LAN", self.log())
        self.assertNotIn("WlanOpenHandle failed", self.log())

    def test_the_service_runs_without_a_missing_system_dll(self):
        self.remove_wlanapi()
        # 127 and 7f are ERROR_PROC_NOT_FOUND.
        for dll, preferred, line in (
                ("wlanapi", "n", "WlanOpenHandle failed with error: 127 "),
                ("setupapi", "", "SetupDiGetClassDevs failed with error: 7f "),
                ("ole32", "", "OS Name: ; OS Version: ;")):
            with self.subTest((dll, preferred)):
                self.run_until_bound(**{dll + ".dll": preferred})
                self.assertIn(line, self.log())


if __name__ == "__main__":
    wine_lab.run()
