# The mailbox device, absent or lost, and the firmware's commands that need no connection.
import json
import signal

from stewardry_lab import BOUND, LabTest, connection_is_dropped, curl, run, until


class Device(LabTest):
    def assert_refuses(self, service):
        self.assertTrue(connection_is_dropped())
        self.logged(BOUND, 2)
        self.assertTrue(service.is_running)

    def test_a_service_without_its_device_runs(self):
        service = self.start_service()
        self.logged("No device interfaces present", 2)  # once for each of the two handles
        self.logged("Cannot open device")
        self.assert_refuses(service)
        self.assert_order(self.log(), [
            "No device interfaces present", "Setting value to WriteTavrinStatus",
            "Invalid handle <", BOUND, "Provisioning not done."])

    def test_a_lost_device_ends_the_reader_alone(self):
        self.start_both()
        self.assertEqual(json.loads(curl("/"))["serviceStatus"], 1)
        self.orrin.end(signal.SIGKILL)
        self.logged("intThreadFunction ln: 658 Before RunServer bstatus 0")
        # The reader was in its wait or about to arm a read.
        self.assertRegex(self.log(), "GetQueuedCompletionStatus failed 1167|"
                                     "Asynchronous read command failed 1167")
        self.assert_refuses(self.service)
        self.assert_order(self.log(), [
            "Asynchronous GetOrrinStatus command failed with error: 1167",
            "ORRIN Status return failed"])


class Commands(LabTest):
    def test_a_resume_reports_again_and_replaces_a_waiting_report(self):
        self.start_both()
        self.write("no", "connected.txt")  # the next report waits for a network
        before = self.orrin.execute("resume")
        self.orrin.saw("GetTavrinVersion", before)
        self.orrin.execute("resume")
        until(lambda: self.orrin.text().count("WriteOsInfo", before) == 2, "the second report")
        self.assertNotIn("WriteNwInfo", self.orrin.text()[before:])
        self.write("2", "connected.txt")
        self.orrin.saw("WriteNwInfo", before)
        reports = json.loads(curl("/"))["reports"]
        self.assertEqual((reports["os"], reports["network"], reports["ip"]), (3, 2, 2))

    def test_a_resume_of_an_unprovisioned_firmware_reports_nothing(self):
        self.start_both("provision off")
        self.orrin.execute("resume")
        self.logged("Skip non DASH commands to ORRIN after S0i3 resume for non Provisioned case")
        self.assertEqual(self.orrin.text().count("WriteTavrinStatus"), 1)


if __name__ == "__main__":
    run()
