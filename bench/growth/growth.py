#!/usr/bin/env python3
"""How cost grows: measures the curves, prints a fitted exponent for each, and writes the rows
(growth.csv) and one page of plots (growth.svg). See README.md beside this file."""
import argparse
import csv
import os
import platform
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))
sys.path.insert(0, HERE)
import curves  # noqa: E402  (the paths above lead to them)
import fit  # noqa: E402
import ground  # noqa: E402
import plot  # noqa: E402

MARKS = ("<!-- table -->\n", "<!-- end of the table -->\n")


def machine():
    with open("/proc/cpuinfo") as lines:
        model = next(line.split(":")[1].strip() for line in lines if line.startswith("model name"))
    return "%s, %d processors, Linux %s" % (model, os.cpu_count(), platform.release())


def read_rows(path):
    with open(path) as file:
        return [(curve, series, int(x), float(y))
                for curve, series, x, y in list(csv.reader(file))[1:]]


def write_rows(rows, path):
    with open(path, "w", newline="") as file:
        writer = csv.writer(file, lineterminator="\n")
        writer.writerow(("curve", "series", "x", "y"))
        writer.writerows((*row[:3], "%.6g" % row[3]) for row in rows)


def write_table(table, facts):
    path = os.path.join(HERE, "README.md")
    with open(path) as file:
        text = file.read()
    before, rest = text.split(MARKS[0])
    after = rest.split(MARKS[1])[1]
    with open(path, "w") as file:
        file.write(before + MARKS[0] + facts + "\n\n" + table + MARKS[1] + after)


def options():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("curves", nargs="*", metavar="CURVE",
                        help=", ".join(curves.CURVES) + "; by default all")
    parser.add_argument("--rounds", type=int, default=5, help="of which the median is taken")
    parser.add_argument("--seconds", type=int, default=60, help="of traffic")
    parser.add_argument("--hour", action="store_const", dest="seconds", const=3600)
    parser.add_argument("--smoke", action="store_true", help="the smallest sizes, 3 s of traffic")
    parser.add_argument("--out", default="build/growth",
                        help="the folder for growth.csv and growth.svg")
    parser.add_argument("--keep", action="store_const", dest="out", const=HERE,
                        help="that folder is this program's, and README.md gets the table")
    parser.add_argument("--plot", action="store_true",
                        help="measures nothing, plots the rows of growth.csv")
    wanted = parser.parse_args()
    unknown = set(wanted.curves) - set(curves.CURVES)
    if unknown:
        parser.error("no curve %s" % ", ".join(sorted(unknown)))
    wanted.percent = 1 if wanted.smoke else 100
    if wanted.smoke:
        wanted.rounds, wanted.seconds = 1, 3
    wanted.out = os.path.abspath(wanted.out)
    os.makedirs(wanted.out, exist_ok=True)
    return wanted


def measure(wanted):
    """The rows of the wanted curves; the others keep those of an earlier run."""
    ground.enter()
    path = os.path.join(wanted.out, "growth.csv")
    rows = read_rows(path) if wanted.curves and os.path.exists(path) else []
    for name, curve in curves.CURVES.items():
        if wanted.curves and name not in wanted.curves:
            continue
        print("== " + name, flush=True)
        made = curve(wanted)
        names = {row[0] for row in made}
        rows = [row for row in rows if row[0] not in names] + made
        write_rows(rows, path)
    return rows


def main():
    wanted = options()
    path = os.path.join(wanted.out, "growth.csv")
    rows = read_rows(path) if wanted.plot else measure(wanted)
    fits = fit.all_fits(rows)
    table = fit.table(fits)
    facts = "Measured on %s; traffic for %d s." % (
        machine(), max((x for curve, _, x, _ in rows if curve == "traffic rate"), default=0))
    print(facts + "\n" + table, end="")
    plot.write(rows, fits, os.path.join(wanted.out, "growth.svg"))
    if wanted.out == HERE:
        write_table(table, facts)


if __name__ == "__main__":
    main()
