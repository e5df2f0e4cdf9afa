# The tray and the software upgrade tool query the service over the pipes that they serve.
import re

from stewardry_lab import ADAPTER, LabTest, run

NOTICE = "Firmware 7.4 is ready: fetch it, then restart."


class Pipes(LabTest):
    # What the tray shows of the host.
    addresses = {8: ADAPTER["address"], 9: ADAPTER["mask"], 10: ADAPTER["gateway"]}

    def start_program(self, name, *words):
        return self.start(name, name, *words)

    def shown(self, tray):
        """Returns the answers of a tray by their numbers; an address in both forms."""
        self.assertEqual(tray.exit_code(), 0, self.read(tray.err))
        rows = re.findall(r"^ ?(\d+)  .{16}  (.*)$", tray.text(), re.M)
        return {int(number): answer for number, answer in rows}

    def test_the_tray_shows_the_service_before_and_after_the_report(self):
        self.orrin = self.start_orrin()
        self.orrin.execute("silence on", "provision on", "version 7.3.2", "kvmstatus 1200")
        tray = self.start_program("tray", "--ui")
        self.start_service(ready=None)
        none = "0  0.0.0.0"
        self.assertEqual(self.shown(tray), {
            1: "OFF", 2: "Not Completed", 3: "Not Available", 4: "NO", 5: "1.0.0.533", 6: "N/A",
            7: "Service Ended", 8: none, 9: none, 10: none, 11: none, 20: "N/A"})
        self.orrin.execute("silence off")
        self.logged("Bind to port 664 successful")
        after = self.shown(self.start_program("tray", "--ui"))
        expected = {1: "ON", 2: "Completed", 3: "7.3.2", 4: "NO", 5: "1.0.0.533", 6: "N/A",
                    7: "Service Started", 20: "WLAN firmware authentication failed"}
        for number, address in self.addresses.items():
            value = int.from_bytes(map(int, address.split(".")), "little")
            expected[number] = "%x  %s" % (value, address)
        self.assertEqual(after, after | expected)
        self.assertEqual(list(after), [*range(1, 12), 20])

    def test_a_notice_is_shown_ten_times(self):
        self.orrin = self.start_orrin()
        before = self.start_program("upgrade", "2")
        self.start_service()
        # A program that is ended instead could consume one of the ten.
        self.assertEqual(before.exit_code(), 0, self.read(before.err))
        self.assertEqual(before.text(), "N/A\nN/A\n")
        self.orrin.execute("upgrade an older one", "upgrade " + NOTICE)
        self.logged("Attempting Software Upgrade", 2)
        polls = self.start_program("upgrade", "11")
        self.assertEqual(polls.exit_code(), 0, self.read(polls.err))
        self.assertEqual(polls.text(), (NOTICE + "\n") * 10 + "N/A\n")


if __name__ == "__main__":
    run()
