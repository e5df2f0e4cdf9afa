"""The service log's file in the life of real processes."""
import os
import re
import unittest

from stewardry_lab import BOUND, LabTest, curl, run

LINE = re.compile(r"^INFO:  <\d{4}/\d\d/\d\d \d\d:\d\d:\d\d>\[\d+\]-\[ \d+ M \] .* "
                  r"<thread=(\d+) \(0x([0-9a-f]+)\)>$")
MIB = 1 << 20


class ServiceLog(LabTest):
    def test_a_large_log_isnt_put_aside_at_the_start(self):
        for size, rotates in ((3 * MIB, True), (2 * MIB, False), (2 * MIB + 1, True)):
            with self.case(size):
                self.write("o" * (size - 2) + "\r\n", os.path.relpath(self.log_path(), self.folder))
                self.write("older", os.path.relpath(self.log_path("tavrinLog.lo_"), self.folder))
                self.start_both()
                backup = os.path.getsize(self.log_path("tavrinLog.lo_"))
                self.assertEqual(backup, size if rotates else len("older"))
                self.assertEqual(self.log().startswith("INFO:  <"), rotates)
                self.assertIn("started on Windows version", self.log())

    def test_a_line_has_another_form(self):
        self.start_both()
        curl("/")
        self.service.end()
        with open(self.log_path(), "rb") as file:
            raw = file.read()
        self.assertEqual(raw.count(b"\n"), raw.count(b"\r\n"))
        for line in raw.decode().splitlines():
            found = LINE.match(line)
            self.assertIsNotNone(found, line)
            self.assertEqual(int(found[1]), int(found[2], 16))
            self.assertIn("[%d]-[" % self.service.child.pid, line)

    def test_a_log_that_cant_be_made_stops_the_service(self):
        for name, block in (("no folder", lambda: self.write("a file", "ProgramData")),
                            ("no file", lambda: os.makedirs(self.log_path()))):
            with self.case(name):
                block()
                orrin, service = self.start_orrin(), self.start_service(ready=None)
                orrin.saw("WriteNwInfo")
                self.served()
                self.assertTrue(service.is_running)
        # Without a file, but with a folder for it, the lines go to the debug output.
        self.assertIn(BOUND, self.read(self.path("debug.txt")))

    def served(self):
        """The port opens a moment behind the report, and here no log tells when."""
        answer = curl("/", "--retry", "100", "--retry-delay", "0", "--retry-connrefused",
                      "--retry-max-time", "30")
        self.assertIn(b'"serviceStatus":1', answer)


if __name__ == "__main__":
    run()
