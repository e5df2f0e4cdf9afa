# scripts/lab.sh: twenty hosts, each found by a console that others wrote, and nothing left of them.
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

from stewardry_lab import BIN, run, until

LAB = str(pathlib.Path(__file__).parents[2] / "scripts" / "lab.sh")
HOSTS, MEMORY = 20, 12  # MiB of a process


class Fleet(unittest.TestCase):
    def setUp(self):
        parent = tempfile.TemporaryDirectory(prefix="stewardry-")
        self.addCleanup(parent.cleanup)
        self.folder = os.path.join(parent.name, "fleet")
        self.environment = dict(os.environ, STEWARDRY_FLEET=self.folder, STEWARDRY_BIN=BIN, OUTLEVEL="1")

    def lab(self, *words):
        return subprocess.run([LAB, *words], env=self.environment, check=True, text=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE).stdout

    def test_a_fleet_starts_answers_reboots_one_and_leaves_nothing(self):
        self.addCleanup(self.lab, "down")
        self.lab("up", str(HOSTS))
        rows = re.findall(r"^(\d+) +(\S+) +(\d+) +(\d+) +(\d+)\+(\d+)M +port 664 listens$",
                          self.lab("list"), re.M)
        self.assertEqual([row[:2] for row in rows],
                         [(str(n), "198.18.1.%d" % n) for n in range(1, HOSTS + 1)])
        for row in rows:
            self.assertLessEqual(max(int(row[4]), int(row[5])), MEMORY, row)
        console = 'cd "$STEWARDRY_LAB" && HOME=$PWD %s >/dev/null && cat response-*; rm -f response*'
        answers = self.lab("run", "sh", "-c", console % "wslid check")
        self.assertEqual(answers.count("ProductVersion>2.4.1.0<"), HOSTS)
        reboot = console % "wslinvoke CIM_PowerManagementService RequestPowerStateChange PowerState=10"
        answers = self.lab("run", "sh", "-c", '[ "$STEWARDRY_HOST" != 198.18.1.7 ] || { %s; }' % reboot)
        self.assertEqual(re.findall("^host-(.*?) .*ReturnValue>0<", answers, re.M), ["7"])
        power = os.path.join(self.folder, "%d", "power.txt")
        until(lambda: os.path.exists(power % 7), "the reboot of host 7")
        self.assertFalse(os.path.exists(power % 8))
        self.lab("down")
        self.assertEqual(os.listdir(os.path.dirname(self.folder)), [])
        links = subprocess.run(["ip", "-br", "link"], check=True, text=True, capture_output=True).stdout
        self.assertFalse(re.findall("stewardry0|sw[0-9]", links))
        for row in rows:
            for number in row[2:4]:
                name = pathlib.Path("/proc", number, "stat")
                state = name.read_text().rpartition(") ")[2] if name.exists() else "gone"
                self.assertIn(state[0], "gZ", number)


if __name__ == "__main__":
    run()
