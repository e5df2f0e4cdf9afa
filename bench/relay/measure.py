#!/usr/bin/env python3
"""The relay beside its peers: one client, one far end, and between them the service, socat, nginx,
haproxy, the least epoll relay, or nothing. `measure.py [rounds] [--calls] [--json FILE]`.

Each round runs every peer once in an order of its own; what is printed are medians with their
ranges. --calls counts system calls instead of time.
"""
import argparse
import glob
import json
import os
import random
import re
import signal
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import ground  # noqa: E402  (the path above leads to it)

CHUNK = 131072
FAR_PORT = 7000
PORTS = {"direct": FAR_PORT, "floor": 7101, "socat": 7102, "nginx": 7103, "haproxy": 7104,
         "service": ground.SERVICE_PORT, "kvm": ground.KVM_PORT}
# Mode, how much of it, how much of it under strace; and the word of the client that counts.
MODES = (("tput", 1_000_000_000, 128 * 1024 * 1024, "MBps"), ("rtt", 4000, 500, "p50"),
         ("chunk", 1500, 500, "p50"), ("down", 500, 100, "MBps"))
BEST = {"tput": max, "rtt": min, "chunk": min, "down": max}

NGINX = """load_module /usr/share/nginx/modules/ngx_stream_module.so;
worker_processes 1; daemon off; master_process off; pid {folder}/nginx.pid;
error_log {folder}/nginx.err;
events {{ worker_connections 64; }}
stream {{ server {{ listen 127.0.0.1:{port}; proxy_pass unix:{far}; proxy_buffer_size 128k;
tcp_nodelay on; }} }}
"""
HAPROXY = """global
  nbthread 1
  tune.bufsize 131072
defaults
  mode tcp
  timeout connect 5s
  timeout client 60s
  timeout server 60s
listen relay
  bind 127.0.0.1:{port}
  server far unix@{far}
"""


def start_peers(place, with_input=True):
    """Every relay, before one far end; the service has its own. Gives name -> process; "service" and
    "kvm" are the two relays of one."""
    far = place.path("far.sock")
    names = {"folder": place.folder, "far": far}
    place.start(ground.program("relay_ends"), "server", str(FAR_PORT), far)
    ground.until(lambda: os.path.exists(far), "the far end")
    socat_listens = "TCP-LISTEN:%d,bind=127.0.0.1,reuseaddr,fork,nodelay" % PORTS["socat"]
    place.start_firmware(place.path("lab"), *([] if with_input else ["noinput"]))
    nginx = place.write("nginx.conf", NGINX.format(port=PORTS["nginx"], **names))
    haproxy = place.write("haproxy.cfg", HAPROXY.format(port=PORTS["haproxy"], **names))
    peers = {
        "floor": place.start(ground.program("relay_floor"), str(PORTS["floor"]), far),
        "socat": place.start("socat", "-b131072", socat_listens, "UNIX-CONNECT:" + far),
        "nginx": place.start("nginx", "-c", nginx),
        "haproxy": place.start("haproxy", "-db", "-f", haproxy),
        "service": place.start_service(place.path("lab")),
    }
    peers["kvm"] = peers["service"]
    for name, port in PORTS.items():
        ground.until(lambda: ground.is_listening(port), name)
    # The service binds before it has an answer to every question of its start.
    time.sleep(0.5)
    return peers


def run_client(name, mode, amount):
    """The client's numbers by their words."""
    answer = subprocess.run(
        [ground.program("relay_ends"), "client", "127.0.0.1:%d" % PORTS[name], mode, str(amount)],
        capture_output=True, text=True, timeout=120)
    words = answer.stdout.split()
    if answer.returncode != 0 or not words:
        sys.exit("%s %s failed: %s" % (name, mode, answer.stderr.strip()))
    return dict(zip(words[::2], map(float, words[1::2])))


def settle(name):
    """A forked relay is reaped, and the far end sees the close; the end of a KVM session takes its
    threads and its agent, and the firmware has to enable the next one."""
    time.sleep(0.3 if name == "kvm" else 0.03)


def measure_once(peers, name, taken):
    for mode, amount, _, word in MODES:
        before = ground.processor_seconds(peers[name]) if name in peers else 0.0
        numbers = run_client(name, mode, amount)
        settle(name)
        taken[name][mode].append(numbers[word])
        if mode == "tput" and name in peers:
            used = ground.processor_seconds(peers[name]) - before
            taken[name]["seconds"].append(used / amount * 1e9)


def measure(rounds, with_input):
    taken = {name: dict({mode: [] for mode, *_ in MODES}, seconds=[]) for name in PORTS}
    with ground.Ground() as place:
        peers = start_peers(place, with_input)
        for number in range(rounds):
            order = list(PORTS)
            random.Random(number).shuffle(order)
            for name in order:
                measure_once(peers, name, taken)
    return taken


def ratio(taken, name, other, mode):
    """Over 1 is better than the other, in each mode. Of each round, then their median: a round's
    neighbours share its noise."""
    pairs = zip(taken[name][mode], taken[other][mode])
    return statistics.median(a / b if BEST[mode] is max else b / a for a, b in pairs)


def spread(values, form):
    return (form + " (" + form + "-" + form + ")") % (
        statistics.median(values), min(values), max(values))


def print_table(taken, rounds):
    print("relay, everything on one processor, %d shuffled rounds: median (range)" % rounds)
    form = "%-8s %-20s %-7s %-22s %-19s %-20s %-20s %s"
    print(form % ("", "MB/s", "s/GB", "64-byte trip us", "128 KiB trip us", "MB/s down",
                  "better than socat", "than the floor"))
    for name in PORTS:
        of = taken[name]
        against = [" ".join("%.2f" % ratio(taken, name, other, mode) for mode, *_ in MODES)
                   for other in ("socat", "floor")]
        seconds = "%.3f" % statistics.median(of["seconds"]) if of["seconds"] else "-"
        print(form % (name, spread(of["tput"], "%.0f"), seconds, spread(of["rtt"], "%.1f"),
                      spread(of["chunk"], "%.0f"), spread(of["down"], "%.0f"), *against))


def is_traced(child):
    """Whether a tracer has every thread of the program."""
    for path in glob.glob("/proc/%d/task/*/status" % child.pid):
        with open(path) as status:
            if "TracerPid:\t0\n" in status.read():
                return False
    return True


def count_calls(place, child, run):
    """Runs `run` while strace counts the calls of the program and its threads and children."""
    file = place.path("strace.txt")
    if os.path.exists(file):
        os.remove(file)
    counter = place.start("strace", "-c", "-f", "-p", str(child.pid), "-o", file)
    ground.until(lambda: counter.poll() is not None or is_traced(child), "strace")
    if counter.poll() is not None:
        raise PermissionError("strace can't attach here")
    run()
    counter.send_signal(signal.SIGINT)
    counter.wait(ground.PATIENCE)
    place.running.remove(counter)
    return calls_in(file)


def calls_in(file):
    """The calls in a table of strace -c, by their names."""
    with open(file) as table:
        found = re.findall(r"^\s*[\d.]+\s+[\d.]+\s+\d+\s+(\d+)\s+(?:\d+\s+)?(\w+)$",
                           table.read(), re.M)
    return {call: int(number) for number, call in found if call != "total"}


def print_calls():
    """Per 128 KiB chunk one way, per round of 128 KiB and per round of 64 bytes."""
    with ground.Ground() as place:
        peers = start_peers(place)
        for mode, _, amount, _ in MODES:
            units = amount / CHUNK if mode == "tput" else amount * 1.1  # with the warm-up
            print("system calls a %s" % {"tput": "128 KiB chunk, one way", "chunk":
                                         "128 KiB trip", "rtt": "64-byte trip",
                                         "down": "1 MiB answer"}[mode])
            for name in ("floor", "socat", "service", "kvm"):
                calls = count_calls(place, peers[name], lambda: run_client(name, mode, amount))
                most = sorted(calls.items(), key=lambda item: -item[1])
                shown = ["%s %.2f" % (call, n / units) for call, n in most if n / units >= 0.02]
                print("  %-8s %5.1f   %s" % (name, sum(calls.values()) / units, ", ".join(shown)))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("rounds", nargs="?", type=int, default=7)
    parser.add_argument("--calls", action="store_true")
    parser.add_argument("--no-input", action="store_true",
                        help="KVM sessions without the region, so that no pump polls it")
    parser.add_argument("--json", help="a file for the numbers of every round")
    wanted = parser.parse_args()
    ground.enter()
    if wanted.calls:
        return print_calls()
    taken = measure(wanted.rounds, not wanted.no_input)
    print_table(taken, wanted.rounds)
    if wanted.json:
        with open(wanted.json, "w") as file:
            json.dump(taken, file)


if __name__ == "__main__":
    main()
