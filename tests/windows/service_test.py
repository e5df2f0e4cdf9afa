"""quillonsvc.exe as a Windows service: installed, started and stopped by the service manager, on the
mailbox driver, with the firmware simulator behind it and foreign clients in front."""
import json
import os
import re
import signal
import socket
import unittest

import wine_lab
from wine_lab import RUNNING, SERVICE, STOPPED, WineLabTest, prefix, program, setup

import dash_test  # noqa: E402  from the Linux lab, whose path wine_lab adds
import indications_test
import kvm_test
import pipes_test
import power_test
from stewardry_lab import ADAPTER, BOUND, connect, curl, knock_is_dropped, receive, until

KEY = "HKLM\\System\\CurrentControlSet\\Services\\" + SERVICE
BANNER = "Quillon Stewardry Service 1.0.0.533 started on Windows version: "


def install():
    return prefix().run(program("quillonsvc.exe"), "install")


def setUpModule():
    global _installed
    prefix()
    _installed = install()


class Install(unittest.TestCase):
    def test_the_registration_is_unfit_or_made_twice(self):
        self.assertEqual(_installed,
                         ("OpenSCManager successful\nService installed successfully\n", 0))
        config = prefix().run(program("scm.exe"), "config", SERVICE)[0]
        for line in ("display name: QuillonSvc", "type: 16", "start: 2", "error control: 1",
                     "description: Corvane Stewardy Service",
                     "path: Z:" + program("quillonsvc.exe").replace("/", "\\")):
            self.assertIn(line + "\n", config)
        self.assertEqual(install(),
                         ("OpenSCManager successful\nCreateService failed with error (1073)\n", 0))
        self.assertEqual(prefix().run(program("scm.exe"), "config", SERVICE)[0], config)

    def test_a_dependency_is_missing(self):
        told = prefix().run("reg", "query", KEY, "/v", "DependOnService")[0]
        self.assertRegex(told, r"DependOnService\s+REG_MULTI_SZ\s+Tcpip")
        if "Tavrin-MailBoxDrv" not in told:
            self.skipTest("Wine's CreateServiceA keeps only the first of the dependencies")


class Driver(unittest.TestCase):
    def test_the_driver_loses_or_mixes_what_it_is_given(self):
        told, code = prefix().run(program("driver_tests.exe"))
        self.assertEqual(code, 0, told)


class Managed(WineLabTest):
    def test_start_report_and_stop_are_told_otherwise(self):
        self.start_managed()
        self.assertEqual(self.state(), RUNNING + "\n")
        self.assertEqual(self.scm("control", SERVICE, "4"), RUNNING + "\n")  # interrogate
        self.assertEqual(json.loads(curl("/"))["serviceStatus"], 1)
        self.assertEqual(setup("status"),
                         "misbehave none, handles 2, reads 10, requests 0, bridge yes\n")
        told = self.scm("control", SERVICE, "1")
        self.assertRegex(told, "SERVICE_STOP_PENDING|SERVICE_STOPPED")
        self.await_state(STOPPED)
        self.assertEqual(self.state(), "SERVICE_STOPPED, accepts 0x0, exit 0/0, check point 3\n")
        self.orrin.saw("CLOSE of the interrupt handle")
        self.orrin.saw("CLOSE of the request handle")
        self.assertEqual(self.log().count(BANNER), 2)
        self.assert_order(self.log(), [
            BANNER, "main line: 157 Starting", BANNER, "Chassis Types:", "SvcInit line: 361",
            "Attempting OpenOrrinDevice", "Device open success", BOUND,
            "SERVICE_CONTROL_STOP recevied\n", "CancelIO called service stop. Error status "])
        self.assertIn("ReportSvcStatus: CurrentServiceState 3\n", self.side_log())
        self.assertNotIn("SendSystemBooted: none", self.orrin.text())

    def test_a_second_start_meets_what_the_first_has_left(self):
        for _ in range(2):
            self.start_managed()
            self.assertEqual(json.loads(curl("/"))["serviceVersion"], "1.0.0.533")
            self.scm("control", SERVICE, "1")
            self.await_state(STOPPED)
            self.bridge.end()
            self.orrin.end(signal.SIGKILL)
            self.processes.clear()
            os.remove(self.log_path())

    def test_a_stop_hangs_on_a_silent_firmware(self):
        self.orrin = self.start_orrin("silence on")
        self.scm("start", SERVICE)
        self.orrin.saw("is held unanswered")
        self.logged("intThreadFunction before Processread")
        self.scm("control", SERVICE, "1")
        self.await_state(STOPPED)

    def test_a_stop_in_the_midst_of_a_start_is_never_finished(self):
        self.orrin = self.start_orrin()
        for line in ("SvcInit line: 361", "Device open success", "OperationSysSInfo", BOUND):
            self.scm("start", SERVICE)
            self.logged(line)
            self.scm("control", SERVICE, "1")
            self.await_state(STOPPED)
            os.remove(self.log_path())

    def test_preshutdown_can_be_sent_by_anybody(self):
        self.start_managed()
        # Only the system sends it; Windows and Wine refuse it to programs (ERROR_INVALID_PARAMETER).
        self.assertEqual(self.scm("control", SERVICE, "15"), "error 87\n")

    @unittest.skip("Wine's service manager sends no power event, and nobody else may")
    def test_a_power_event_is_lost(self):
        pass

    @unittest.skip("Wine's service manager sends no session change, and nobody else may")
    def test_a_logon_stops_the_service(self):
        pass


class Report(WineLabTest):
    def test_the_boot_report_differs_from_the_host(self):
        self.start_both()
        told = json.loads(curl("/"))
        version = prefix().run("cmd", "/c", "ver")[0].split()[-1]
        host = prefix().run("cmd", "/c", "echo %COMPUTERNAME%")[0].strip()
        expected = {
            "os": {"architecture": "64-bit", "version": version, "osType": 18},
            "network": {"name": ADAPTER["name"], "macAddress": ADAPTER["mac"].lower()},
        }
        for record, fields in expected.items():
            self.assertEqual({name: told[record][name] for name in fields}, fields)
        self.assertEqual(told["os"]["hostName"].upper(), host.upper())
        self.assertEqual([told["serviceStatus"], told["networkStatus"], told["serviceVersion"]],
                         [1, 1, "1.0.0.533"])
        self.orrin.saw_all([
            "GetOrrinStatus", "WriteTavrinStatus: the service is up (1)", "WriteOsInfo",
            "GetTavrinVersion", "SendSystemBooted", "WriteNwInfo"])
        self.assertIn(BANNER + "Microsoft Windows " + version, self.log())

    @unittest.skip("Wine lists the loopback adapter first, and its address is never reported")
    def test_the_reported_address_is_anothers(self):
        pass

    def test_a_resume_reports_nothing(self):
        self.start_both()
        before = self.orrin.tell("resume")
        self.orrin.saw("WriteNwInfo", before)
        self.assertEqual(json.loads(curl("/"))["reports"]["os"], 2)


class Dash(WineLabTest, dash_test.Dash):
    """Everything that the Linux lab asks of the relay."""

    test_inventory_differs_from_the_host = None  # Report has this host's


class Indications(WineLabTest, indications_test.Indications):
    @unittest.skip("Wine's WinHttpSendRequest waits for the answer, without an end")
    def test_a_listener_that_never_answers_holds_the_service(self):
        pass


class KvmSessions(WineLabTest, kvm_test.Sessions):
    """Sessions with foreign viewers, and the agent started with winlogon.exe's token."""

    def test_the_agents_launch_is_told_otherwise(self):
        self.enable()
        self.viewer()
        self.logged("KVM_Agent PID: ")
        self.assert_order(self.side_log(), [
            "KVM_Agent.exe\n", "Session Id 0x1\n", "CreateEnvironmentBlock success\n",
            "CreateProcessAsUser success\n", "KeyBoardBufferVirtualAddress High"])


class KvmDoors(WineLabTest, kvm_test.Doors):
    pass


class KvmMishaps(WineLabTest, kvm_test.Mishaps):
    FLOOD = 180  # the pipe's free instances hold these; the agent takes them slower than they come


class Pipes(WineLabTest, pipes_test.Pipes):
    """The tray and the upgrade tool as Windows programs, on the platform's own named pipes."""

    addresses = {8: "127.0.0.1", 9: "255.0.0.0"}  # Wine lists the loopback adapter first

    def start_program(self, name, *words):
        return self.start_wine(name, name + ".exe", *words)


class Power(WineLabTest):
    """Wine takes each power call, says yes and does nothing: what the service does shows in its
    log."""

    def test_the_console_isnt_answered_or_the_host_not_acted_on(self):
        for word, frame, state, _, lines in power_test.ACTIONS:
            with self.case(word):
                self.start_both()
                request = power_test.REQUEST.format(power_test.SERVICE, state).encode()
                answer = curl("/wsman", data=request).decode()
                self.assertIn("<p:ReturnValue>0</p:ReturnValue>", answer)
                self.logged(lines[-1])
                self.orrin.saw_all(["firmware > host  %s, payload 0" % frame, "DASH_DATA"])
                self.assert_order(self.log(), lines)
                self.assertIsNone(re.search("Returned error|Power option failed", self.log()))
                self.assertTrue(self.service.is_running)


class Plugs(WineLabTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(setup, "misbehave", "none")

    def test_a_driver_that_answers_at_once_or_fails_stops_the_service(self):
        for how in (("at-once",), ("fail", "31")):
            with self.case(" ".join(how)):
                setup("misbehave", *how)
                service = self.start_wine("service", "quillonsvc.exe", "ult")
                self.logged("Asynchronous GetOrrinStatus command failed with error: ")
                self.logged(BOUND)
                self.assertTrue(knock_is_dropped())
                setup("misbehave", "none")
                self.assertTrue(service.is_running)

    def test_a_lost_driver_stops_the_service(self):
        self.start_both()
        self.assertEqual(json.loads(curl("/"))["serviceStatus"], 1)
        setup("misbehave", "gone")
        ends = ("GetQueuedCompletionStatus failed 1167", "Asynchronous read command failed 1167")
        until(lambda: any(end in self.log() for end in ends), "the reader's end")
        self.logged("intThreadFunction ln: 658 Before RunServer bstatus 0")
        self.assertTrue(knock_is_dropped())
        self.logged("Asynchronous GetOrrinStatus command failed with error: 1167")
        self.assertTrue(self.service.is_running)

    def test_a_missing_interface_is_opened(self):
        prefix()
        setup("misbehave", "gone")
        service = self.start_service()
        self.logged("No device interfaces present")
        self.logged("Cannot open device")
        self.assertTrue(service.is_running)

    def test_a_new_firmware_finds_a_deaf_service(self):
        self.start_both()
        peer = connect()
        self.logged("Exiting HTTPS Callback")
        self.bridge.end()
        self.orrin.end(signal.SIGKILL)
        peer.sendall(b"while nobody listens")
        peer.close()
        self.orrin = self.start_orrin()
        self.orrin.saw("ten reads armed")
        self.assertIsNone(json.loads(curl("/"))["serviceVersion"])  # nothing was reported to it
        self.orrin.tell("resume")
        self.orrin.saw("WriteNwInfo")
        self.assertEqual(json.loads(curl("/"))["serviceVersion"], "1.0.0.533")

    def test_a_failed_read_leaves_the_reader_half_open(self):
        self.start_both()
        self.orrin.tell("failread 1117")
        self.logged("GetQueuedCompletionStatus failed 1117")
        self.orrin.saw("CLOSE of the interrupt handle")
        self.assertTrue(self.service.is_running)


class Alone(WineLabTest):
    def test_it_starts_without_a_driver_or_names_another_system(self):
        setup("remove")
        self.addCleanup(setup, "install")
        service = self.start_service()
        text = self.log()
        version = prefix().run("cmd", "/c", "ver")[0].strip()
        self.assertEqual(text.count(BANNER + version + "..."), 1, text)
        self.assertIn("Chassis Types:", text)
        self.assertIn("No device interfaces present", text)
        self.assertNotIn("main line: 157 Starting", text)
        self.assertTrue(service.is_running)
        with open(self.log_path(), "rb") as file:
            self.assertTrue(all(line.endswith(b"\r") for line in file.read().split(b"\n")[:-1]))


if __name__ == "__main__":
    wine_lab.run()
