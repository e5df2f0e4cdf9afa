#!/usr/bin/env python3
"""Writes the fault tables of docs/operations.md from the catalogue that `stewardry diagnose` uses.
With --check it only looks, and exits with 1 where the document differs."""
import json
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
DOCUMENT = ROOT / "docs/operations.md"
CATALOGUE = ROOT / "tools/diagnosis/faults.json"
HEADS = {"faults": "in the log", "kvm": "in the log", "host": "what is seen"}


def table(name, faults):
    lines = ["| id | %s | fault | what the service does | what to do |" % HEADS[name],
             "|---|---|---|---|---|"]
    for fault in faults:
        if fault["table"] == name:
            lines.append("| `%s` | %s | %s | %s | %s |" % tuple(
                fault[key] for key in ("id", "shown", "fault", "service", "remedy")))
    return "\n".join(lines)


def main():
    faults = json.loads(CATALOGUE.read_text(encoding="utf-8"))["faults"]
    old = DOCUMENT.read_text(encoding="utf-8")
    new = re.sub(r"(<!-- faults\.json: (\w+) -->\n).*?(\n<!-- end -->)",
                 lambda found: found[1] + table(found[2], faults) + found[3], old, flags=re.S)
    if sys.argv[1:] == ["--check"]:
        if new == old:
            return 0
        print("  BROKEN  docs/operations.md: scripts/operations_tables.py would change it")
        return 1
    DOCUMENT.write_text(new, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
