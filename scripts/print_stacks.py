#!/usr/bin/env python3
"""Prints the stacks of all threads of a process's descendants, for a test that waits in vain.

usage: print_stacks.py PROCESS_ID"""
import contextlib
import os
import subprocess
import sys


def descendants(process):
    """Yields the ids of all children of the process, and of their children."""
    with contextlib.suppress(FileNotFoundError):  # a process that has exited meanwhile
        for thread in os.listdir("/proc/%d/task" % process):
            with open("/proc/%d/task/%s/children" % (process, thread), encoding="ascii") as file:
                children = [int(child) for child in file.read().split()]
            for child in children:
                yield child
                yield from descendants(child)


def main():
    own = os.getpid()
    for process in [each for each in descendants(int(sys.argv[1])) if each != own]:
        print("== process %d" % process, flush=True)
        subprocess.run(["gdb", "-p", str(process), "-batch", "-nx", "-ex", "thread apply all bt"],
                       stderr=subprocess.DEVNULL, check=False, timeout=60)


if __name__ == "__main__":
    main()
