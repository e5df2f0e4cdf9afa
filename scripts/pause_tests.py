#!/usr/bin/env python3
"""Runs a command while it stops (SIGSTOP) one random process below it at a time for 50 to 200 ms,
and lets it continue. A test that passes only while nothing pauses fails sooner or later.

usage: pause_tests.py [--seed N] COMMAND...     e.g. pause_tests.py ctest --test-dir build/asan -j4

The command itself is never stopped. Exits with the command's exit code."""
import argparse
import os
import random
import signal
import subprocess
import sys
import time

SHORTEST, LONGEST, BETWEEN = 0.05, 0.2, 0.05  # seconds
# Stopping what starts and times the tests would only make the run slower.
SPARED = ("ctest", "cmake", "timeout", "wineserver")


def processes():
    """The parent, name and state of each process, by process id."""
    found = {}
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open("/proc/%s/stat" % entry, encoding="utf-8", errors="replace") as file:
                name, rest = file.read().split("(", 1)[1].rsplit(")", 1)
        except OSError:
            continue  # it has ended
        state, parent = rest.split()[:2]
        found[int(entry)] = (int(parent), name, state)
    return found


def below(root):
    """The processes below `root` that may be stopped. A process that somebody else has stopped, or
    that is traced, is left alone: continuing it would be wrong."""
    table = processes()
    children = {}
    for pid, (parent, _, _) in table.items():
        children.setdefault(parent, []).append(pid)
    found, ahead = [], list(children.get(root, []))
    while ahead:
        pid = ahead.pop()
        ahead += children.get(pid, [])
        if table[pid][1] not in SPARED and table[pid][2] in "RSD":
            found.append(pid)
    return sorted(found)


def pause(pid, seconds):
    """Stops a process for a while. False if it has ended before."""
    try:
        os.kill(pid, signal.SIGSTOP)
        time.sleep(seconds)
        os.kill(pid, signal.SIGCONT)
        return True
    except ProcessLookupError:
        return False


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30))
    parser.add_argument("command", nargs=argparse.REMAINDER)
    asked = parser.parse_args()
    if not asked.command:
        parser.error("a command is needed")
    chance, pauses = random.Random(asked.seed), 0
    with subprocess.Popen(asked.command) as child:
        while child.poll() is None:
            running = below(child.pid)
            if running:
                pauses += pause(chance.choice(running), chance.uniform(SHORTEST, LONGEST))
            time.sleep(chance.uniform(0, BETWEEN))
    print("paused %d times, seed %d" % (pauses, asked.seed))
    return child.returncode


if __name__ == "__main__":
    sys.exit(main())
