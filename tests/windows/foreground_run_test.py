"""quillonsvc.exe in the foreground under Wine, in a network namespace of its own: it must start
without a mailbox driver, name the system that `ver` names, and say that no device is there."""

import os
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

LOG = "drive_c/ProgramData/Corvane/Stewardry/tavrinLog.log"


class ForegroundRun(unittest.TestCase):
    def setUp(self):
        self.env = dict(os.environ, WINEDEBUG="-all")
        if "WINEPREFIX" not in self.env:
            prefix = tempfile.TemporaryDirectory(prefix="stewardry-wine-")
            self.addCleanup(prefix.cleanup)
            self.env["WINEPREFIX"] = prefix.name
            self.addCleanup(subprocess.run, ["wineserver", "-k"], env=self.env, check=False)
        self.log = Path(self.env["WINEPREFIX"]) / LOG

    def wine(self, *words):
        """What a Windows command prints."""
        done = subprocess.run(["wine", *words], env=self.env, timeout=90, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        return done.stdout.decode(errors="replace").replace("\r", "")

    def start(self):
        service = subprocess.Popen(["unshare", "-n", "wine", os.environ["QUILLONSVC"], "ult"],
                                   env=self.env, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        self.addCleanup(service.wait)
        self.addCleanup(service.kill)
        return service

    def await_line(self, text):
        end = time.monotonic() + 60
        while time.monotonic() < end:
            if self.log.exists() and text in self.log.read_text(errors="replace"):
                return
            time.sleep(0.1)
        self.fail(f"the log never said: {text}")

    def test_it_starts_without_a_driver_and_names_its_system(self):
        version = [line for line in self.wine("cmd", "/c", "ver").split("\n") if line][-1]
        self.log.unlink(missing_ok=True)
        self.start()
        self.await_line("Cannot open device")
        text = self.log.read_bytes().decode(errors="replace")
        banner = f"Quillon Stewardry Service 1.0.0.533 started on Windows version: {version}..."
        self.assertEqual(text.count(banner), 1, text)
        self.assertIn("Chassis Types:", text)
        self.assertIn("No device interfaces present", text)
        self.assertNotIn("main line: 157 Starting", text)
        self.assertTrue(all(line.endswith("\r") for line in text.split("\n")[:-1]))


if __name__ == "__main__":
    unittest.main()
