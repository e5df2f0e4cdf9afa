#!/usr/bin/env python3
"""What an operation costs, counted: instructions and heap calls of a turn (callgrind), system calls
of a relayed trip (strace). Load changes times but not these, so the tests compare them with
table.json. `counts.py turns|calls` compares, `counts.py --renew` writes the table.

A count that is over the table's by more than its room fails. One that is far below is printed: the
table should be renewed, so that the gain is kept.
"""
import glob
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.dirname(HERE), os.path.join(os.path.dirname(HERE), "relay")]
import ground  # noqa: E402  (the paths above lead to both)
import measure  # noqa: E402

TABLE = os.path.join(HERE, "table.json")
RENEW = "python3 -B bench/counts/counts.py --renew"
ROOM = 1.03
GAIN = 0.90
# System calls below this number a trip belong to the connection or to the service at rest.
FEW = 0.15
# These depend on who runs first, as a thread finds its work or waits for it: they get more room.
SCHEDULED = ("clock_nanosleep", "epoll_pwait2", "epoll_wait", "futex", "poll", "ppoll", "read",
             "recvmsg", "restart_syscall", "sched_yield", "timerfd_settime")
SCHEDULED_ROOM, SCHEDULED_FEW = 1.5, 1.0
# A thread that receives what another waits for writes to the other's eventfd, at most once a frame
# and once an answer, and not where the other looks first.
WAKES = 1.0
# A chunk may arrive in pieces, each of which is a request. A call more for each request is seen in
# the trips of 64 bytes.
PIECES_ROOM = 1.5
# Load makes a trip cost more at times and never less, so the least of some runs counts.
RUNS = 6
TRIPS = 1000
RELAYS = {"dash": "service", "kvm": "kvm"}
MODES = {"64-byte trip": "rtt", "128 KiB chunk": "chunk"}
SKIPPED = 77  # the exit code that ctest takes for "skipped"


def skip(why):
    print("skipped: " + why)
    sys.exit(SKIPPED)


def count_turns():
    """Gives {"built with": ..., "instructions": {row: n}, "heap calls": {row: n}}, of one turn."""
    if shutil.which("valgrind") is None:
        skip("there is no valgrind; scripts/setup.sh installs it")
    with tempfile.TemporaryDirectory(prefix="stewardry-counts-") as folder:
        # The C library's choice among copies for different processors would change the counts.
        env = {"PATH": os.environ["PATH"], "TMPDIR": folder, "TZ": "UTC", "LC_ALL": "C",
               "GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX2,-AVX_Fast_Unaligned_Load,-ERMS"}
        done = subprocess.run(
            ["valgrind", "--tool=callgrind", "--callgrind-out-file=" + folder + "/out",
             ground.program("counted_turns")], cwd=folder, env=env, capture_output=True, text=True)
        if done.returncode != 0:
            sys.exit("counted_turns failed: " + done.stdout + done.stderr)
        built, turns = re.match(r"(.*), (\d+) turns\n", done.stdout).groups()
        heap = {name: int(n) / int(turns)
                for name, n in re.findall(r"^(.*): (\d+) heap calls$", done.stdout, re.M)}
        instructions = {}
        for path in glob.glob(folder + "/out.*"):
            with open(path) as file:
                text = file.read()
            name = re.search(r"^desc: Trigger: Client Request: (.*)$", text, re.M)
            total = re.search(r"^(?:summary|totals): (\d+)", text, re.M)
            if name:
                instructions[name[1]] = round(int(total[1]) / int(turns))
        return {"built with": built, "instructions": instructions, "heap calls": heap}


def count_trips(place, service, relay, mode):
    """The system calls of one trip, by their names."""
    calls = measure.count_calls(
        place, service, lambda: measure.run_client(RELAYS[relay], MODES[mode], TRIPS))
    measure.settle(RELAYS[relay])
    trips = TRIPS * 1.1  # with the warm-up
    return {call: round(n / trips, 2) for call, n in sorted(calls.items()) if n / trips >= FEW}


def count_calls(is_good):
    """Gives {relay and mode: {call: n}}. Runs each until `is_good(row, calls)`, or RUNS times; what
    is given holds the least of each call."""
    for tool in ("strace", "unshare", "ip"):
        if shutil.which(tool) is None:
            skip("there is no " + tool + "; scripts/setup.sh installs it")
    counted = {}
    with ground.Ground() as place:
        place.start_firmware(place.path("lab"), "noinput")
        service = place.start_service(place.path("lab"))
        ground.until(lambda: all(map(ground.is_listening, (ground.SERVICE_PORT, ground.KVM_PORT))),
                     "the service")
        for relay in RELAYS:
            for mode in MODES:
                row, least = relay + " " + mode, None
                for _ in range(RUNS):
                    try:
                        calls = count_trips(place, service, relay, mode)
                    except PermissionError as error:
                        skip(str(error))
                    least = calls if least is None else {
                        call: min(n, least[call]) for call, n in calls.items() if call in least}
                    if is_good(row, least):
                        break
                counted[row] = least
    return counted


def compare(row, unit, was, now, most):
    """Whether the count is at most `most`. Prints if not, and if it is far below the table's."""
    if now <= most and (unit in SCHEDULED or now >= was * GAIN - FEW * (unit != "instructions")):
        return True
    percent = "%+.1f %%" % ((now / was - 1) * 100) if was else "new"
    print("%s: %s: was %s %s, is %s (%s)"
          % ("costs more" if now > most else "costs less, renew the table", row, was, unit, now,
             percent))
    return now <= most


def most_calls(row, call, was):
    if call in SCHEDULED:
        return was * SCHEDULED_ROOM + SCHEDULED_FEW
    few = FEW + (WAKES if call == "write" else 0)
    return was * (PIECES_ROOM if row.endswith("chunk") else ROOM) + few


def calls_and_bounds(table, row, now):
    """(call, count in the table, count, bound) of each call."""
    was = table[row]
    return [(call, was.get(call, 0), now.get(call, 0), most_calls(row, call, was.get(call, 0)))
            for call in sorted({*was, *now})]


def check_calls(table):
    def holds(row, calls):
        return all(now <= most for _, _, now, most in calls_and_bounds(table, row, calls))

    return all([compare(row, call, was, now, most)
                for row, calls in count_calls(holds).items()
                for call, was, now, most in calls_and_bounds(table, row, calls)])


def check_turns(table):
    now = count_turns()
    units = {"heap calls": 1.0, "instructions": ROOM}
    if now["built with"] != table["built with"]:
        print("instructions are not compared: the table was made with %s, this is %s"
              % (table["built with"], now["built with"]))
        del units["instructions"]
    return all([compare(row, unit, table[unit].get(row, 0), now[unit].get(row, 0),
                        table[unit].get(row, 0) * room)
                for unit, room in units.items() for row in sorted({*table[unit], *now[unit]})])


def renew():
    table = dict(count_turns(), calls=count_calls(lambda *_: False))
    with open(TABLE, "w") as file:
        json.dump(table, file, indent=1, sort_keys=True)
        file.write("\n")


def main():
    kind = sys.argv[1] if len(sys.argv) == 2 else ""
    if kind not in ("turns", "calls", "--renew"):
        sys.exit("usage: counts.py turns|calls|--renew")
    if kind != "turns":
        try:
            ground.enter()
        except SystemExit as error:
            skip(str(error))
    if kind == "--renew":
        return renew()
    with open(TABLE) as file:
        table = json.load(file)
    holds = check_calls(table["calls"]) if kind == "calls" else check_turns(table)
    if not holds:
        sys.exit("If the cost is wanted: " + RENEW)


if __name__ == "__main__":
    main()
