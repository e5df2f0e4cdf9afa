# quillonsvc.exe as a Windows service: with the service manager, the mailbox driver, the firmware
# simulator and foreign clients.
import json
import os
import pathlib
import shutil
import unittest

import wine_lab
from wine_lab import IS_WINE_8, WineLabTest, prefix, program, setup

import dash_test  # from the Linux lab, whose path wine_lab adds
import indications_test
import kvm_test
import pipes_test
import power_test
import wsman_test
from stewardry_lab import ADAPTER, BOUND, connection_is_dropped, curl, until

SERVICE = "QuillonSvc"
KEY = "HKLM\\System\\CurrentControlSet\\Services\\" + SERVICE
BANNER = "Quillon Stewardry Service 1.0.0.533 started on Windows version: "


def install():
    return prefix().run(prefix().service, "install")


def setUpModule():
    global _installed
    prefix()
    _installed = install()


class Install(unittest.TestCase):
    def test_the_service_is_registered_once(self):
        self.assertEqual(_installed,
                         ("OpenSCManager successful\nService installed successfully\n", 0))
        registered = prefix().run("reg", "query", KEY)[0]
        # Wine 8 keeps only the first of the dependencies.
        second = "" if IS_WINE_8 else r"\\0Tavrin-MailBoxDrv"
        for value in (r"Start +REG_DWORD +0x2", r"DependOnService +REG_MULTI_SZ +Tcpip" + second,
                      r'ImagePath +REG_\w+ +"C:\\Stewardry Service\\quillonsvc.exe"'):
            self.assertRegex(registered, " %s\n" % value)
        self.assertEqual(install(),
                         ("OpenSCManager successful\nCreateService failed with error (1073)\n", 0))
        self.assertEqual(prefix().run("reg", "query", KEY)[0], registered)


class LogFolder(unittest.TestCase):
    @unittest.skipUnless(os.geteuid() == 0, "only root can change the owner of a folder")
    def test_files_of_another_user_are_not_written_to(self):
        company = pathlib.Path(prefix().folder, "ProgramData", "Corvane")
        logs = company / "Stewardry"
        for foreign in (logs, company, logs / "tavrinWMI.log"):
            shutil.rmtree(company, ignore_errors=True)
            logs.mkdir(parents=True)
            foreign.touch()
            os.chown(foreign, 65534, 65534)
            prefix().run(program("quillonsvc.exe"), "no word")
            self.assertFalse(foreign.exists() and foreign.stat().st_uid, foreign)
            self.assertTrue((logs / "tavrinLog.log").exists())


class Driver(unittest.TestCase):
    def test_the_driver_keeps_its_contract(self):
        text, code = prefix().run(program("driver_tests.exe"))
        self.assertEqual(code, 0, text)


class Managed(WineLabTest):
    def _close(self):
        try:
            if "SERVICE_STOPPED" not in self.scm("status"):
                self.stop_managed()
        finally:
            super()._close()

    def scm(self, command, *words):
        """Returns the service manager's answer."""
        return prefix().run(program("scm.exe"), command, SERVICE, *words)[0]

    def stop_managed(self):
        # A service that is still starting accepts no stop.
        until(lambda: "error 1061" not in self.scm("control", "1"), "an accepted stop")
        until(lambda: "SERVICE_STOPPED" in self.scm("status"), "the service's end")

    def test_a_service_is_started_and_stopped_any_number_of_times(self):
        self.orrin = self.start_orrin()
        for _ in range(2):
            before = self.orrin.here()
            self.assertNotIn("error", self.scm("start"))
            self.logged(BOUND)
            running = "SERVICE_RUNNING, accepts 0x101, exit 0/0, check point 0\n"
            self.assertEqual(self.scm("status"), running)
            self.assertEqual(self.scm("control", "4"), running)  # interrogate
            self.assertEqual(json.loads(curl("/"))["serviceVersion"], "1.0.0.533")
            self.await_driver("misbehave none, handles 2, reads 10, requests 0, bridge yes\n")
            self.stop_managed()
            self.assertEqual(self.scm("status"),
                             "SERVICE_STOPPED, accepts 0x0, exit 0/0, check point 3\n")
            self.orrin.saw_all(["CLOSE of the", "CLOSE of the"], before)
            self.assertEqual(self.log().count(BANNER), 2)
            self.assert_order(self.log(), [
                BANNER, "main line: 157 Starting", BANNER, "SvcInit line: 361",
                "Attempting OpenOrrinDevice", "Device open success", BOUND,
                "SERVICE_CONTROL_STOP recevied\n", "CancelIO called service stop. Error status "])
            os.remove(self.log_path())

    def test_a_stop_at_any_point_of_a_start_ends_the_service(self):
        self.orrin = self.start_orrin("silence on")
        for line, trace in (("SvcInit line: 361", ""), ("Device open success", ""),
                            ("intThreadFunction before Processread", "is held unanswered")):
            before = self.orrin.here()
            self.scm("start")
            self.logged(line)
            self.orrin.saw(trace, before)
            self.stop_managed()
            os.remove(self.log_path())


class Report(WineLabTest):
    def test_the_reports_are_those_of_the_host(self):
        self.start_both()
        inventory = json.loads(curl("/"))
        version = prefix().run("cmd", "/c", "ver")[0].split()[-1]
        host = prefix().run("cmd", "/c", "echo %COMPUTERNAME%")[0].strip()
        system, network = inventory["os"], inventory["network"]
        self.assertEqual([system["architecture"], system["version"], system["osType"],
                          system["hostName"].upper()], ["64-bit", version, 18, host.upper()])
        self.assertEqual([network["name"], network["macAddress"].upper()],
                         [ADAPTER["name"], ADAPTER["mac"]])
        self.assertIn(BANNER + "Microsoft Windows " + version, self.log())
        self.orrin.saw("WriteNwInfo", self.orrin.execute("resume"))
        self.assertEqual(json.loads(curl("/"))["reports"]["os"], 2)


class Dash(WineLabTest, dash_test.Dash):
    test_inventory_describes_the_host = None  # Report checks this host's


class Indications(WineLabTest, indications_test.Indications):
    # Wine's WinHttpSendRequest waits for the answer until the time-out of a post.
    test_a_listener_that_never_answers_does_not_hold_the_service = None


class Kvm(WineLabTest, kvm_test.Sessions):
    COUNT = 3  # one for each kind of end

    def test_the_agent_is_launched_in_the_session_of_the_console(self):
        self.enable()
        self.viewer()
        self.logged("KVM_Agent PID: ")
        self.assert_order(self.side_log(), [
            "KVM_Agent.exe\n", "Session Id 0x1\n", "CreateEnvironmentBlock success\n",
            "CreateProcessAsUser success\n", "KeyBoardBufferVirtualAddress High"])


class Pipes(WineLabTest, pipes_test.Pipes):
    """The tray and the upgrade tool as Windows programs, on the platform's own named pipes."""

    if IS_WINE_8:  # it lists the loopback adapter first
        addresses = {8: "127.0.0.1", 9: "255.0.0.0"}

    def start_program(self, name, *words):
        return self.start_wine(name, name + ".exe", *words)


class Power(WineLabTest):
    """Wine accepts each power call and does nothing, so the service's log is checked."""

    def test_each_action_follows_its_answer(self):
        self.start_both()
        for frame, state, _, lines in power_test.ACTIONS:
            before = self.orrin.here()
            self.assertEqual(power_test.request(state)[0], "0")
            self.logged(lines[-1])
            self.orrin.saw_all(["firmware > host  %s, payload 0" % frame, "DASH_DATA"], before)
            self.assert_order(self.log(), lines)
        self.assertNotRegex(self.log(), "Returned error|Power option failed")


class Console(WineLabTest, wsman_test.Console):
    if IS_WINE_8:  # the address of the loopback adapter, which is its first, is not reported
        addressed = ("CIM_IPProtocolEndpoint", "EnumerateResponse")


class Plugs(WineLabTest):
    def _close(self):
        setup("misbehave", "none")
        super()._close()

    def test_a_driver_that_answers_at_once_or_fails_leaves_the_service_running(self):
        for how in (("at-once",), ("fail", "31")):
            with self.case(how[0]):
                setup("misbehave", *how)
                service = self.start_service()
                self.assertIn("Asynchronous GetOrrinStatus command failed with error: ",
                              self.log())
                self.assertTrue(connection_is_dropped())
                self.logged(BOUND, 2)
                self.assertTrue(service.is_running)

    def test_a_lost_driver_ends_the_reader_alone(self):
        self.start_both()
        self.assertEqual(json.loads(curl("/"))["serviceStatus"], 1)
        setup("misbehave", "gone")
        self.logged("intThreadFunction ln: 658 Before RunServer bstatus 0")
        self.assertRegex(self.log(), "GetQueuedCompletionStatus failed 1167|"
                                     "Asynchronous read command failed 1167")
        self.assertTrue(connection_is_dropped())
        self.logged("Asynchronous GetOrrinStatus command failed with error: 1167")
        self.assertTrue(self.service.is_running)


class Alone(WineLabTest):
    def test_a_service_without_its_driver_runs(self):
        setup("remove")
        self.addCleanup(setup, "install")
        service = self.start_service()
        self.assert_order(self.log(), [BANNER + prefix().run("cmd", "/c", "ver")[0].strip() + "...",
                                       "Chassis Types:", "No device interfaces present"])
        self.assertTrue(service.is_running)
        with open(self.log_path(), "rb") as file:
            self.assertNotRegex(file.read(), rb"[^\r]\n")


if __name__ == "__main__":
    wine_lab.run()
