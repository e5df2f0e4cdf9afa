#!/usr/bin/env python3
"""One table of what bench/run.sh has measured, against the marks. `summary.py FOLDER`, which holds
Google Benchmark's files, relay.json and service.json; what is missing is left out. Nothing here fails:
a time says nothing without the peer beside it."""
import collections
import glob
import json
import os
import statistics
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import marks  # noqa: E402  (the path above leads to it)

# A program's items a second in the unit of its pieces.
IN_UNIT = {"turns": lambda rate: rate / 1e3, "wake": lambda rate: 1e6 / rate,
           "log": lambda rate: 1e6 / rate, "keys": lambda rate: rate / 1e6,
           "pump": lambda rate: rate / 1e3,
           "name": lambda rate: 1e9 / rate,
           "base64": lambda rate: rate / 1e9, "datetime": lambda rate: 1e9 / rate,
           "number": lambda rate: 1e9 / rate, "pack": lambda rate: 1e9 / rate,
           "unpack": lambda rate: 1e9 / rate, "walk": lambda rate: 1e9 / rate,
           "arena": lambda rate: 1e9 / rate, "message": lambda rate: 1e9 / rate,
           "wsman": lambda rate: 1e6 / rate}
COUNTERS = ("p50_us", "p99_us", "heap_calls")
# Between two runs a difference below this says nothing.
TIE = 0.15


def read_benchmarks(path, found):
    with open(path) as file:
        runs = json.load(file)["benchmarks"]
    for run in runs:
        if run["run_type"] != "iteration":
            continue
        name = "/".join(part for part in run["run_name"].split("/")
                        if part not in ("real_time", "process_time")
                        and not part.startswith("iterations:"))
        if "error_occurred" in run:
            print("%s: %s" % (name, run["error_message"]))
            continue
        found[name].append(IN_UNIT[name.split("/")[0]](run["items_per_second"]))
        for counter in COUNTERS:
            if counter in run:
                found[name + "/" + counter].append(run[counter])


def read_relay(path, found):
    with open(path) as file:
        for peer, modes in json.load(file).items():
            for mode, values in modes.items():
                found["relay/%s/%s" % (peer, mode)] += values


def read_service(path, found):
    with open(path) as file:
        for run in json.load(file):
            for name, value in run.items():
                found["service/" + name].append(value)


READERS = {"relay.json": read_relay, "service.json": read_service}


def read_all(folder):
    found = collections.defaultdict(list)
    for path in glob.glob(os.path.join(folder, "*.json")):
        read = READERS.get(os.path.basename(path), read_benchmarks)
        read(path, found)
    return {name: statistics.median(values) for name, values in found.items() if values}


def limit(mark, peers):
    peer, factor = mark
    return factor if peer is None else peers[peer] * factor


def verdict(ours, bound, less):
    """Met, or by how much not; within the noise it is a tie."""
    short = (ours / bound if less else bound / ours) - 1
    if short <= 0:
        return "met"
    return "tie" if short < TIE else "%+.0f%%" % (short * 100)


def row(mark, medians):
    piece, unit, better, ours_name, peer_names, floor_name, must, good = mark
    names = [ours_name, *peer_names.values()] + ([floor_name] if floor_name else [])
    if any(name not in medians for name in names):
        return None
    ours, less = medians[ours_name], better == "less"
    peers = {peer: medians[name] for peer, name in peer_names.items()}
    if floor_name:
        peers["floor"] = medians[floor_name]
    shown = ", ".join("%s %.4g" % pair for pair in peers.items() if pair[0] != "floor")
    bounds = [each and limit(each, peers) for each in (must, good)]
    return (piece, unit, "%.4g" % ours, shown, "%.4g" % peers["floor"] if floor_name else "-",
            "%.2f" % (ours / peers["floor"]) if floor_name else "-",
            *("%.4g %s" % (bound, verdict(ours, bound, less)) if bound else "-"
              for bound in bounds))


def main():
    medians = read_all(sys.argv[1])
    table = [("piece", "unit", "ours", "peers", "floor", "/floor", "must", "good")]
    table += [found for found in (row(mark, medians) for mark in marks.MARKS) if found]
    widths = [max(map(len, column)) for column in zip(*table)]
    for line in table:
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())


if __name__ == "__main__":
    main()
