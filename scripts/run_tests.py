#!/usr/bin/env python3
"""Runs ctest and prints what a person reads: a line of progress every half minute, each failure in
full, the skipped tests with their reasons, how many tests passed in each preset, and ctest's own
summary at the end. Exits with ctest's exit code.

usage: run_tests.py BUILD_FOLDER [ctest's options]"""
import collections
import os
import re
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree

PROGRESS_SECONDS = 30
FINISHED = re.compile(r"^ *(\d+)/(\d+) Test +#\d+: .*? \.* *(Passed|\*\*\*\S+|Not Run)\b.* sec$")
STARTED = re.compile(r"^ +Start +\d+: |^Test project |^$")


def reasons(output):
    """Yields (case, reason) for what a test's output says it skipped. A GoogleTest program writes
    the reason before its verdict, a Python program writes both in a line."""
    lines = output.splitlines()
    for before, line in zip([""] + lines, lines):
        if found := re.match(r"\[  SKIPPED \] (\S+) \(", line):
            yield found[1], before.strip()
        elif found := re.match(r"(?:(test_\w+) .*)?\bskipped:? (.+)", line):
            yield found[1] or "", found[2].strip("'\"")


def run(folder, options, junit):
    """Runs ctest; prints failures as they come. Returns ctest's exit code and its summary."""
    command = ["ctest", "--test-dir", folder, "--output-on-failure", "--output-junit", junit,
               *options]
    summary, failing, shown, failures = [], False, time.monotonic(), 0
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace") as ctest:
        for line in ctest.stdout:
            if re.match(r"\d+% tests passed", line):
                summary.append("")
            if summary:
                summary.append(line.rstrip("\n"))
                continue
            if found := FINISHED.match(line):
                failing = found[3] not in ("Passed", "***Skipped")
                failures += failing
                if time.monotonic() - shown > PROGRESS_SECONDS:
                    shown = time.monotonic()
                    print("   %s of %s tests, %d failed" % (found[1], found[2], failures),
                          flush=True)
                if not failing:
                    continue
            elif not failing and STARTED.match(line):
                continue
            print(line, end="", flush=True)
    return ctest.returncode, summary


def report(junit):
    """Prints the skipped tests and a line for each preset."""
    counts = collections.defaultdict(collections.Counter)
    for case in ElementTree.parse(junit).getroot().iter("testcase"):
        preset = case.get("name").split(".")[0]
        output = case.findtext("system-out") or ""
        skipped = list(reasons(output))
        for name, reason in skipped:
            where = case.get("name") if name in case.get("name") else case.get("name") + " " + name
            print("skipped: %s: %s" % (where, reason))
        # A program of several cases counts as its cases.
        cases = re.search(r"^\[=+\] (\d+) tests? from .* ran\.|^Ran (\d+) tests? in ", output, re.M)
        total = int(cases[1] or cases[2]) if cases else 1
        counts[preset] += {"cases": total, "skipped": len(skipped), "programs": 1,
                           "failed programs": case.get("status") == "fail",
                           "seconds": float(case.get("time") or 0)}
    for preset, count in counts.items():
        print("preset %-8s %4d cases in %4d tests, %d cases skipped, %d tests failed, %.0f s" %
              (preset, count["cases"], count["programs"], count["skipped"],
               count["failed programs"], count["seconds"]))


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    folder, options = sys.argv[1], sys.argv[2:]
    junit = os.path.join(os.path.abspath(folder), "tests.xml")
    code, summary = run(folder, options, junit)
    if os.path.exists(junit):
        report(junit)
    print("\n".join(summary))
    return code


if __name__ == "__main__":
    sys.exit(main())
