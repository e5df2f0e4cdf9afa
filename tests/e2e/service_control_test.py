"""The service as its manager sees it: installed, started, controlled, stopped. The manager is the
lab's scm."""
import os
import re
import subprocess
import unittest

import stewardry_lab
from stewardry_lab import BOUND, PATIENCE, LabTest, curl, run

START_PENDING = ("SERVICE_START_PENDING", 0x0, 0)  # state, accepted controls, check point
RUNNING = ("SERVICE_RUNNING", 0x101, 0)
FIRST_PENDING = ("SERVICE_STOP_PENDING", 0x1, 1)
SECOND_PENDING = ("SERVICE_STOP_PENDING", 0x1, 2)
STOPPED = ("SERVICE_STOPPED", 0x0, 3)
POWER_SETTINGS = ["{5D3E9A59-E9D5-4B00-A6BD-FF34FF516548}",
                  "{A7AD8041-B45A-4CAE-87A3-EECBB468A9E1}",
                  "{786E8A1D-B427-4344-9207-09E70BDCBEA9}"]
STOP_LINES = ["SERVICE_CONTROL_STOP recevied\n", "CancelIO called service stop. Error status "]


class UnderAManager(LabTest):
    def run_tool(self, *words):
        return subprocess.run(
            [os.path.join(stewardry_lab.BIN, words[0]), *words[1:]], capture_output=True,
            env=dict(os.environ, STEWARDRY_LAB=self.folder), text=True, timeout=PATIENCE * 2,
            stdin=subprocess.DEVNULL)

    def scm(self, *words, code=0):
        done = self.run_tool("scm", *words)
        self.assertEqual(done.returncode, code, done.stdout + done.stderr)
        return done.stdout + done.stderr

    def start_managed(self):
        self.orrin = self.start_orrin()
        self.manager = self.start("scm", "scm", "start",
                                  os.path.join(stewardry_lab.BIN, "quillonsvc"))
        self.logged(BOUND)

    def reported(self):
        """(state, accepted, check point) of each report; exit codes and wait hint are all 0."""
        rows = re.findall(r"status: (\w+), accepts (\w+), exit 0/0, check point (\d+), "
                          r"wait hint 0\n", self.manager.text())
        self.assertEqual(len(rows), self.manager.text().count("status: "))
        return [(state, int(accepted, 16), int(point)) for state, accepted, point in rows]

    def assert_stops(self):
        told = self.scm("stop")
        self.assertIn("SERVICE_STOPPED", told)
        self.assertEqual(self.manager.exit_code(), 0)
        rows = self.reported()
        self.assertEqual(rows, [START_PENDING, RUNNING, FIRST_PENDING, SECOND_PENDING, STOPPED])
        lines = self.log().split("SERVICE_CONTROL_STOP recevied\n")[1].splitlines()
        self.assertIn("CancelIO called service stop. Error status ", lines[1])
        self.assertIn("ReportSvcStatus: CurrentServiceState 3\n", self.side_log())


class Control(UnderAManager):
    def test_start_and_stop_report_other_states(self):
        self.start_managed()
        self.assertIn('"serviceStatus":1', curl("/").decode())
        self.assertEqual(self.reported(), [START_PENDING, RUNNING])
        settings = re.findall(r"registered for power setting (\S+)", self.manager.text())
        self.assertEqual(settings, POWER_SETTINGS)
        self.assert_stops()
        banner = "Quillon Stewardry Service 1.0.0.533 started on Windows version: "
        self.assertEqual(self.log().count(banner), 2)
        self.assert_order(self.log(), [
            banner, "main line: 157 Starting", banner, "Chassis Types:", "SvcInit line: 361",
            "Attempting OpenOrrinDevice", "Device open success", BOUND, *STOP_LINES])
        self.assertNotIn("going down", self.orrin.text())
        events = self.read(self.path("eventlog.txt"))
        for text in ("SvcInit-Before CreateThread", "SvcInit-After CreateThread",
                     "MyThreadFunction-Before ServerMain"):
            line = "QuillonSvc type=4 id=0xC0020001 [QuillonSvc] [%s]\n" % text
            self.assertEqual(events.count(line), 1, text)

    def setUp(self):
        super().setUp()
        self.write("3 10\n", "chassis.txt")

    def test_a_stop_hangs_on_a_silent_firmware(self):
        self.orrin = self.start_orrin("mailbox0", "silence on")
        self.manager = self.start("scm", "scm", "start",
                                  os.path.join(stewardry_lab.BIN, "quillonsvc"))
        self.orrin.saw("is held unanswered")
        self.logged("intThreadFunction before Processread")
        self.assert_stops()
        self.assert_order(self.log(), ["Laptop", *STOP_LINES])

    def test_preshutdown_stops_the_service_or_tells_nobody(self):
        self.start_managed()
        self.scm("preshutdown")
        self.orrin.saw("IOCTL_CORVANE_SET_S5_STATUS: the host is going to S5")
        self.assert_order(self.log(), ["Shutdown Command sent to ORRIN",
                                       "CancelIO called preshutdown"])
        self.assertEqual(self.reported(), [START_PENDING, RUNNING])
        self.assertIn("status: SERVICE_RUNNING, accepts 0x101", self.scm("status"))
        with self.assertRaises(ConnectionRefusedError):
            stewardry_lab.connect()
        self.assert_stops()  # the log has stayed open for its lines

    def test_interrogate_leaves_a_line(self):
        self.start_managed()
        before = self.log(), self.side_log()
        self.assertIn("RESULT 0", self.scm("interrogate"))
        self.assertEqual((self.log(), self.side_log()), before)

    def test_optional_controls_are_accepted_or_not_understood(self):
        self.start_managed()
        for words in (("power", "acdc", "1"), ("session", "logon")):
            self.assertIn("error 1061", self.scm(*words, code=1))
        acdc = "GUID Received 0x5d3e9a59,0xe9d5,0x4b00,0x0"
        battery = "GUID Received 0xa7ad8041,0xb45a,0x4cae,0x0"
        event = "GUID_BATTERY_PERCENTAGE_REMAINING Event"
        for state, words, lines in (
                (None, ("power", "acdc", "1"),
                 [acdc, "Size of event 4,32787", "GUID_ACDC_POWER_SOURCE Event 1"]),
                ("0 2 9", ("power", "battery", "9"), [battery, event, "Battery is Critical 9"]),
                ("0 4 3", ("power", "battery", "3"), [battery, event, "Battery is Drained 3"]),
                ("1 1 80", ("power", "battery", "80"), [battery, event]),
                ("1 10 9", ("power", "battery", "9"), [battery, event]),  # charging
                (None, ("power", "presence", "2"), ["GUID Received 0x786e8a1d,0xb427,0x4344,"])):
            with self.subTest(words):
                if state:
                    self.write(state, "battery.txt")
                before = self.log()
                self.assertIn("RESULT 0", self.scm(*words, "--force"))
                grown = self.log()[len(before):].splitlines()
                self.assertEqual(len(grown), len(lines), grown)
                for line, expected in zip(grown, lines):
                    self.assertIn(expected, line)
        change = "SvcCtrlHandler:SERVICE_CONTROL_SESSIONCHANGE recevied\n"
        handler = "SvcHandleSessionChange: WTS_SESSION_"
        for words, lines in (
                (("session", "logon"), [change, handler + "LOGON gSessionLogonCount 1",
                                        "NotifyKvmTerminationEvents: KVMdisabled"]),
                (("session", "logoff"), [change, handler + "LOGOFF"]),
                (("session", "lock"), [change, handler + "LOCK"]),
                (("session", "unlock"), [change, handler + "UNLOCK"]),
                (("session", "logon"), [change, handler + "LOGON gSessionLogonCount 2"]),
                (("control", "200"), ["SvcCtrlHandler:SERVICE_CONTROL  200 recevied\n"])):
            with self.subTest(words):
                before = len(self.side_log())
                self.scm(*words, "--force")
                self.assert_order(self.side_log()[before:], lines)
        self.assert_stops()


class Entry(UnderAManager):
    def test_install_is_unfit_or_done_twice(self):
        path = self.path("services", "QuillonSvc")
        done = self.run_tool("quillonsvc", "InStaLL", "ult")
        self.assertEqual((done.returncode, done.stdout),
                         (0, "OpenSCManager successful\nService installed successfully\n"))
        installed = self.read(path)
        for line in ("displayName=QuillonSvc", "desiredAccess=0xF01FF", "serviceType=16",
                     "startType=2", "errorControl=1", "dependencies=Tcpip,Tavrin-MailBoxDrv",
                     "description=Corvane Stewardy Service",
                     "binaryPath=" + os.path.realpath(os.path.join(stewardry_lab.BIN,
                                                                   "quillonsvc"))):
            self.assertIn(line + "\n", installed)
        self.assert_order(self.log(), ["main line: 157 Starting", "main 160 SvcInstall"])
        again = self.run_tool("quillonsvc", "install")
        self.assertEqual((again.returncode, again.stdout), (
            0, "OpenSCManager successful\nCreateService failed with error (1073)\n"))
        self.assertEqual(self.read(path), installed)
        # What was installed is what the manager starts.
        self.orrin = self.start_orrin()
        self.manager = self.start("scm", "scm", "start")
        self.logged(BOUND)
        self.assert_stops()

    def test_a_start_from_a_console_hangs(self):
        for count, words in enumerate(((), ("install2",), ("",)), 1):
            done = self.run_tool("quillonsvc", *words)
            self.assertEqual((done.returncode, done.stdout), (0, ""))
            events = self.read(self.path("eventlog.txt")).splitlines()
            self.assertEqual(len(events), count)
            self.assertRegex(events[-1], r"^QuillonSvc type=1 id=0xC0020001 \[QuillonSvc\] "
                                         r"\[StartServiceCtrlDispatcher failed with \d+\]$")

    def test_a_foreground_run_asks_for_a_manager(self):
        self.orrin = self.start_orrin()
        self.service = self.start("service", "quillonsvc", "uLt", "install")
        self.logged(BOUND)
        self.assertEqual(self.log().count("Quillon Stewardry Service 1.0.0.533 started"), 1)
        self.assertNotIn("main line: 157 Starting", self.log())
        self.assertIn("serviceVersion", curl("/").decode())
        self.assertFalse(os.path.exists(self.path("services")))


if __name__ == "__main__":
    run()
