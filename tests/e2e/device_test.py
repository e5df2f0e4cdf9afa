"""The mailbox device: absent, lost, several; and the firmware's commands that need no connection."""
import json
import re
import signal
import unittest

from stewardry_lab import BOUND, LabTest, curl, knock_is_dropped, run, until


class Device(LabTest):
    def test_a_missing_device_stops_the_service(self):
        for name, prepare, line in (
                ("no interface", lambda: None, "No device interfaces present"),
                ("a dead one", lambda: self.start_orrin().end(signal.SIGKILL),
                 "Failed in open device \\\\?\\GLOBALROOT\\Device\\000000c8 with error: 2")):
            with self.case(name):
                prepare()
                service = self.start_service()
                self.logged(line, 2)  # once for each of the two handles
                self.logged("Cannot open device")
                self.assertTrue(knock_is_dropped())
                self.logged(BOUND, 2)
                self.assertTrue(service.is_running)
                self.assert_order(self.log(), [
                    "Attempting OpenOrrinDevice", line, "Setting value to WriteTavrinStatus",
                    "Invalid handle <", BOUND, "Provisioning not done."])

    def test_a_lost_device_stops_the_service(self):
        for name, lose in (("dropped", lambda: self.orrin.child.stdin.write(b"drop\n")
                                               and self.orrin.child.stdin.flush()),
                           ("killed", lambda: self.orrin.end(signal.SIGKILL))):
            with self.case(name):
                self.start_both()
                self.assertEqual(json.loads(curl("/"))["serviceStatus"], 1)
                lose()
                # The reader is in its wait, or just about to arm a read again.
                ends = ("GetQueuedCompletionStatus failed 1167",
                        "Asynchronous read command failed 1167")
                until(lambda: any(end in self.log() for end in ends), "the reader's end")
                self.logged("intThreadFunction ln: 658 Before RunServer bstatus 0")
                self.assertTrue(knock_is_dropped())
                self.logged("Asynchronous GetOrrinStatus command failed with error: 1167")
                self.logged("ORRIN Status return failed")
                self.logged(BOUND, 2)
                self.assertTrue(self.service.is_running)

    def test_a_failed_read_leaves_the_reader_half_open(self):
        self.start_both()
        self.orrin.tell("failread 1117")
        self.logged("GetQueuedCompletionStatus failed 1117")
        self.orrin.saw("CLOSE of the interrupt handle")
        self.orrin.tell("unknown 0x14")
        self.assertTrue(self.service.is_running)
        self.assertNotIn("Unknown Command", self.log())

    def test_the_first_of_two_interfaces_is_used(self):
        first, last = (self.start_orrin(name) for name in ("mailbox0", "mailbox1"))
        self.start_service()
        self.assertEqual(json.loads(curl("/"))["serviceVersion"], "1.0.0.533")
        last.saw("OPEN of the interrupt handle")
        self.assertNotIn("host > firmware", first.text())


class Commands(LabTest):
    def test_a_resume_reports_nothing_or_hangs_on_an_older_one(self):
        self.start_both()
        self.write("no", "connected.txt")  # the next report waits for a network
        before = self.orrin.tell("resume")
        self.orrin.saw("GetTavrinVersion", before)
        self.orrin.tell("resume")  # cuts the waiting one off
        until(lambda: self.orrin.text().count("WriteOsInfo", before) == 2, "the second report")
        self.assertNotIn("WriteNwInfo", self.orrin.text()[before:])
        self.write("2", "connected.txt")
        self.orrin.saw("WriteNwInfo", before)
        reports = json.loads(curl("/"))["reports"]
        self.assertEqual((reports["os"], reports["network"], reports["ip"]), (3, 2, 2))
        self.assertEqual(self.log().count("send data to ORRIN upon resume from S0i3"), 2)

    def test_a_resume_reports_to_an_unprovisioned_firmware(self):
        self.start_both("provision off")
        self.orrin.tell("resume")
        self.logged("Skip non DASH commands to ORRIN after S0i3 resume for non Provisioned case")
        self.assertEqual(self.orrin.text().count("WriteTavrinStatus"), 1)

    def test_commands_without_a_taker_harm_the_reader(self):
        self.start_both()
        codes = (0x00, 0x07, 0x0D, 0x12, 0x14, 0x18, 0x20, 0x22, 0x24, 0x28, 0xFF)
        self.orrin.tell(*("unknown 0x%02x" % code for code in codes), "resume")
        self.logged("upon resume from S0i3")
        told = re.findall(r"Unknown Command received (0x[0-9a-f]+) ", self.log())
        self.assertEqual(told, ["0x%x" % code for code in codes])


if __name__ == "__main__":
    run()
