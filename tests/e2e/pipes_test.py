"""The tray and the software upgrade tool ask the service over the pipes that they serve."""
import re
import unittest

from stewardry_lab import ADAPTER, LabTest, run

NOTICE = "Firmware 7.4 is ready: fetch it, then restart."


class Pipes(LabTest):
    # What the tray shows of the host.
    addresses = {8: ADAPTER["address"], 9: ADAPTER["mask"], 10: ADAPTER["gateway"]}

    def start_program(self, name, *words):
        return self.start(name, name, *words)

    def shown(self, tray):
        """The answers of a tray that has ended well, by their numbers; an address in both forms."""
        self.assertEqual(tray.exit_code(), 0, self.read(tray.err))
        rows = [re.fullmatch(r" ?(\d+)  (.{16})  (.*)", line) for line in tray.text().splitlines()]
        self.assertNotIn(None, rows, tray.text())
        return {int(row[1]): row[3] for row in rows}

    def test_the_tray_sees_another_service_before_and_after_the_report(self):
        self.orrin = self.start_orrin()
        self.orrin.tell("silence on", "provision on", "version 7.3.2", "kvmstatus 1200")
        tray = self.start_program("tray", "--ui")
        self.start_service(ready=None)
        before = self.shown(tray)
        self.assertEqual(before, {
            1: "OFF", 2: "Not Completed", 3: "Not Available", 4: "NO", 5: "1.0.0.533", 6: "N/A",
            7: "Service Ended", **{n: "0  0.0.0.0" for n in range(8, 12)}, 20: "N/A"})
        self.orrin.tell("silence off")
        self.logged("Bind to port 664 successful")
        after = self.shown(self.start_program("tray", "--ui"))
        self.assertEqual({n: after[n] for n in (1, 2, 3, 4, 5, 6, 7, 20)}, {
            1: "ON", 2: "Completed", 3: "7.3.2", 4: "NO", 5: "1.0.0.533", 6: "N/A",
            7: "Service Started", 20: "WLAN firmware authentication failed"})
        for number, address in self.addresses.items():
            value = int.from_bytes(map(int, address.split(".")), "little")
            self.assertEqual(after[number], "%x  %s" % (value, address))
        self.assertEqual(list(after), [*range(1, 12), 20])

    def test_a_notice_is_lost_or_shown_other_than_ten_times(self):
        self.orrin = self.start_orrin()
        first = self.start_program("upgrade")
        self.start_service()
        self.assertEqual((first.exit_code(), first.text()), (0, "N/A\n"))
        self.orrin.tell("upgrade an older one", "upgrade " + NOTICE)
        self.logged("Attempting Software Upgrade", 2)
        polls = self.start_program("upgrade", "11")
        self.assertEqual(polls.exit_code(), 0, self.read(polls.err))
        self.assertEqual(polls.text(), (NOTICE + "\n") * 10 + "N/A\n")
        self.assert_order(self.log(), ["Software upgrade command received",
                                       "Attempting Software Upgrade"])

    def test_a_tray_that_is_ended_halfway_keeps_the_next_one_out(self):
        self.orrin = self.start_orrin()
        halfway = self.start_program("upgrade", "1000000")
        self.start_service()
        halfway.saw("N/A")
        halfway.end()
        again = self.start_program("upgrade", "2")
        self.assertEqual((again.exit_code(), again.text()), (0, "N/A\nN/A\n"))

    def test_without_a_service_the_programs_wait_for_ever(self):
        for name in ("tray", "upgrade"):
            waits = self.start_program(name, "--seconds", "1")
            self.assertEqual(waits.exit_code(), 1)
            self.assertIn("the service hasn't connected in time", self.read(waits.err))
            self.assertEqual(self.start_program(name, "--seconds", "x").exit_code(), 2)


if __name__ == "__main__":
    run()
