# The service as its manager sees it: installed, started, controlled, stopped. The manager is the
# lab's scm.
import os
import re
import shutil
import subprocess

import stewardry_lab
from stewardry_lab import BOUND, PATIENCE, LabTest, run

STARTED = ["SERVICE_START_PENDING, accepts 0x0, exit 0/0, check point 0, wait hint 0",
           "SERVICE_RUNNING, accepts 0x101, exit 0/0, check point 0, wait hint 0"]
STOPPED = ["SERVICE_STOP_PENDING, accepts 0x1, exit 0/0, check point 1, wait hint 0",
           "SERVICE_STOP_PENDING, accepts 0x1, exit 0/0, check point 2, wait hint 0",
           "SERVICE_STOPPED, accepts 0x0, exit 0/0, check point 3, wait hint 0"]
BANNER = "Quillon Stewardry Service 1.0.0.533 started on Windows version: "
SERVICE = os.path.join(stewardry_lab.BIN, "quillonsvc")


class UnderAManager(LabTest):
    def run_tool(self, name, *words):
        """Returns the exit code and what was printed."""
        done = subprocess.run(
            [os.path.join(stewardry_lab.BIN, name), *words], stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, env=dict(os.environ, STEWARDRY_LAB=self.folder), text=True,
            timeout=PATIENCE * 2, stdin=subprocess.DEVNULL)
        return done.returncode, done.stdout

    def scm(self, *words):
        code, text = self.run_tool("scm", *words)
        self.assertEqual(code, 0, text)
        return text

    def start_managed(self, *commands, program=(SERVICE,), ready=BOUND):
        self.orrin = self.start_orrin(*commands)
        self.manager = self.start("scm", "scm", "start", *program)
        self.logged(ready)
        self.manager.saw(STARTED[-1])  # before that it accepts no control

    def reported(self):
        return re.findall("status: (.*)", self.manager.text())

    def assert_stops(self):
        self.assertIn("SERVICE_STOPPED", self.scm("stop"))
        self.assertEqual(self.manager.exit_code(), 0)
        self.assertEqual(self.reported(), STARTED + STOPPED)
        self.assert_order(self.log(), ["SERVICE_CONTROL_STOP recevied\n",
                                       "CancelIO called service stop. Error status "])
        self.assertIn("ReportSvcStatus: CurrentServiceState 3\n", self.side_log())


class Control(UnderAManager):
    def test_start_and_stop_report_their_states(self):
        self.start_managed()
        before = self.side_log()
        self.assertIn("RESULT 0", self.scm("interrogate"))  # behind the service's reports
        self.assertEqual(self.side_log(), before)
        self.scm("control", "200", "--force")
        self.assertIn("SvcCtrlHandler:SERVICE_CONTROL  200 recevied", self.side_log())
        self.assertEqual(self.reported(), STARTED)
        self.assertEqual(self.manager.text().count("registered for power setting"), 3)
        self.assert_stops()
        self.assert_order(self.log(), [
            BANNER, "main line: 157 Starting", BANNER, "SvcInit line: 361",
            "Attempting OpenOrrinDevice", "Device open success", BOUND])
        self.assertNotIn("going down", self.orrin.text())
        events = self.read(self.path("eventlog.txt"))
        self.assertEqual(
            sorted(re.findall(r"type=4 id=0xC0020001 \[QuillonSvc\] \[(.*)\]", events)),
            ["MyThreadFunction-Before ServerMain", "SvcInit-After CreateThread",
             "SvcInit-Before CreateThread"])

    def test_a_stop_ends_a_report_to_a_silent_firmware(self):
        self.start_managed("silence on", ready="intThreadFunction before Processread")
        self.orrin.saw("is held unanswered")
        self.assert_stops()

    def test_preshutdown_is_sent_to_the_firmware_and_closes_the_port(self):
        self.start_managed()
        self.scm("preshutdown")
        self.orrin.saw("IOCTL_CORVANE_SET_S5_STATUS: the host is going to S5")
        self.assert_order(self.log(), ["Shutdown Command sent to ORRIN",
                                       "CancelIO called preshutdown"])
        self.assertEqual(self.reported(), STARTED)
        self.assertRaises(ConnectionRefusedError, stewardry_lab.connect)
        self.assert_stops()  # the log has stayed open for its lines
        self.assertNotIn("type=2", self.read(self.path("eventlog.txt")), "it is not deaf")


class Entry(UnderAManager):
    def test_an_installed_service_is_started_by_its_manager(self):
        # From a folder with a blank, for which the path is registered in quotes.
        folder = os.path.join(self.folder, "Stewardry Service")
        os.mkdir(folder)
        service = shutil.copy(SERVICE, folder)
        self.assertEqual(self.run_tool(service, "InStaLL", "ult"),
                         (0, "OpenSCManager successful\nService installed successfully\n"))
        installed = self.read(self.path("services", "QuillonSvc"))
        for line in ("displayName=QuillonSvc", "desiredAccess=0xF01FF", "serviceType=16",
                     "startType=2", "errorControl=1", "dependencies=Tcpip,Tavrin-MailBoxDrv",
                     "description=Corvane Stewardy Service",
                     'binaryPath="%s"' % service):
            self.assertIn(line + "\n", installed)
        self.assertEqual(self.run_tool("quillonsvc", "install"), (
            0, "OpenSCManager successful\nCreateService failed with error (1073)\n"))
        self.assertEqual(self.read(self.path("services", "QuillonSvc")), installed)
        self.start_managed(program=())
        self.assert_stops()

    def test_a_path_that_would_be_cut_is_not_installed(self):
        folder = os.path.join(self.folder, *["d" * 80] * 3)
        os.makedirs(folder)
        self.assertEqual(self.run_tool(shutil.copy(SERVICE, folder), "install"),
                         (0, "Cannot install service (122)\n"))

    def test_a_start_from_a_console_ends_with_an_event(self):
        for words in ((), ("install2",), ("",)):
            self.assertEqual(self.run_tool("quillonsvc", *words), (0, ""))
        self.assertRegex(self.read(self.path("eventlog.txt")),
                         r"^(QuillonSvc type=1 id=0xC0020001 \[QuillonSvc\] "
                         r"\[StartServiceCtrlDispatcher failed with \d+\]\n){3}$")


if __name__ == "__main__":
    run()
