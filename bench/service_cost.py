#!/usr/bin/env python3
"""What the service costs at rest: its memory, its threads, its processor time without and with a
KVM session in which nothing happens, and the time from its start to the bound port with a firmware
that answers at once. `service_cost.py [runs] [--seconds N] [--json FILE]`; medians and ranges. The
network wait of the start sleeps 100 ms, which is part of the time."""
import argparse
import json
import os
import socket
import statistics
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import ground  # noqa: E402  (the path above leads to it)

# What is measured, its unit, and how it is printed.
ROWS = (("VmRSS", "KiB resident", "%.0f"), ("private", "KiB private", "%.0f"),
        ("Threads", "threads", "%.0f"), ("start", "ms to the bound port", "%.1f"),
        ("rest", "processor ms a second: at rest", "%.3f"),
        ("session", "in a KVM session at rest", "%.2f"))

# The agent's watch and the two pumps.
SESSION_THREADS = 3


def numbers_of(pid, file):
    """The lines "Name: number" of a file of the process."""
    with open("/proc/%d/%s" % (pid, file)) as lines:
        pairs = [line.split() for line in lines]
    return {pair[0].rstrip(":"): int(pair[1]) for pair in pairs
            if len(pair) > 1 and pair[1].isdigit()}


def processor_ms(pid):
    """What all threads have used, the ended ones too: the clock of clock_getcpuclockid(3), since
    the ticks of /proc are too coarse for a service at rest."""
    return time.clock_gettime_ns(~pid << 3 | 2) / 1e6


def cost_of(pid, seconds):
    """Processor milliseconds a second, over the next seconds."""
    before, began = processor_ms(pid), time.monotonic()
    time.sleep(seconds)
    return (processor_ms(pid) - before) / (time.monotonic() - began)


def cost_of_session(pid, seconds):
    """The same with a viewer that is connected and sends nothing."""
    ground.until(lambda: ground.is_listening(ground.KVM_PORT), "the port of KVM")
    idle = numbers_of(pid, "status")["Threads"]
    with socket.create_connection(("127.0.0.1", ground.KVM_PORT)):
        ground.until(lambda: numbers_of(pid, "status")["Threads"] >= idle + SESSION_THREADS,
                     "the session's threads")
        time.sleep(0.5)  # until the session's set-up is over
        return cost_of(pid, seconds)


def measure_once(place, number, seconds):
    lab = place.path("lab%d" % number)
    place.start_firmware(lab)
    began = time.monotonic()
    service = place.start_service(lab)
    ground.until(lambda: ground.is_listening(ground.SERVICE_PORT), "the bound port")
    took = (time.monotonic() - began) * 1000
    time.sleep(0.5)  # until the start's last questions are answered and all threads wait
    status = numbers_of(service.pid, "status")
    rollup = numbers_of(service.pid, "smaps_rollup")
    rest = cost_of(service.pid, seconds)
    session = cost_of_session(service.pid, seconds)
    place.end(service)
    place.end(place.firmware)
    return {"rest": rest, "session": session, "VmRSS": status["VmRSS"], "Threads": status["Threads"], "start": took,
            "private": rollup["Private_Clean"] + rollup["Private_Dirty"]}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("runs", nargs="?", type=int, default=7)
    parser.add_argument("--seconds", type=float, default=2,
                        help="of each processor time; the service looks for its pipes every 2")
    parser.add_argument("--json", help="a file for the numbers of every run")
    wanted = parser.parse_args()
    ground.enter()
    with ground.Ground() as place:
        runs = [measure_once(place, number, wanted.seconds) for number in range(wanted.runs)]
    print("the service at rest, %d runs: median (range)" % wanted.runs)
    for name, unit, form in ROWS:
        values = [run[name] for run in runs]
        print("  %-31s %s" % (unit, (form + " (" + form + "-" + form + ")") % (
            statistics.median(values), min(values), max(values))))
    if wanted.json:
        with open(wanted.json, "w") as file:
            json.dump(runs, file)


if __name__ == "__main__":
    main()
