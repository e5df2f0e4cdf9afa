#!/usr/bin/env python3
"""Runs the program that docs/library.md shows and compares the page's packed bytes with those that
it prints."""
import re
import subprocess
import sys
import unittest

PROGRAM, PAGE = sys.argv.pop(1), sys.argv.pop(1)
FILLER = None


def bytes_of_page():
    """(offset, byte) of each byte of the page's hex block; FILLER for what has no value."""
    with open(PAGE, encoding="utf-8") as file:
        block = re.search(r"^```hex\n(.*?)^```", file.read(), re.S | re.M)[1]
    expected = []
    for line in block.splitlines():
        offset, line = line.split(";")[0].split(None, 1)
        assert int(offset, 16) == len(expected), "the offset %s is wrong" % offset
        for text, digits in re.findall(r"'([^']*)'|([-0-9A-F]{2})", line):
            if digits == "--":
                expected.append(FILLER)
            else:
                expected += text.encode("utf-16-le") if text else bytes.fromhex(digits)
    return expected


class LibraryPage(unittest.TestCase):
    def test_page_shows_what_the_library_prints(self):
        run = subprocess.run([PROGRAM], capture_output=True, timeout=60, check=True)
        packed, sentence = run.stdout.decode().splitlines()
        packed = bytes.fromhex(packed)
        expected = bytes_of_page()
        self.assertEqual(len(packed), len(expected))
        self.assertEqual([FILLER if wanted is FILLER else byte
                          for byte, wanted in zip(packed, expected)], expected)
        self.assertEqual(sentence, "PostInstanceMsg carries F1")


if __name__ == "__main__":
    unittest.main()
