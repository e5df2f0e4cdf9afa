"""The curves: what each measures, and how. A curve is a list of rows (curve, series, x, y)."""
import glob
import os
import random
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import ground  # noqa: E402  (the path above leads to it)

CONSOLES = (1, 2, 5, 10, 20, 50, 100, 200, 350, 500, 700, 1000)
SIZES = tuple(2 ** power for power in range(1, 18))
ADAPTERS = (2, 4, 10, 20, 50, 100, 150, 200, 300, 400, 500)
MOST_LOOKS = 240
FLOOR_PORT, SOCAT_PORT, FAR_PORT = 7101, 7102, 7000
SETTLED = 0.5  # seconds; the service binds before it has an answer to every question of its start


def up_to(sizes, percent):
    """The sizes of a run; a small one leaves the large ones out, but never all that a fit needs."""
    return [size for size in sizes if size * 100 <= sizes[-1] * percent] or list(sizes[:4])


def run_client(*words):
    """The client's one number."""
    answer = subprocess.run([ground.program("growth_ends"), *map(str, words)],
                            capture_output=True, text=True, timeout=300)
    if answer.returncode != 0 or not answer.stdout:
        sys.exit("growth_ends %s failed: %s" % (" ".join(map(str, words)), answer.stderr.strip()))
    return float(answer.stdout.split()[1])


def start_relay(place, lab, with_tls=False):
    """The service before a far end that echoes, or before the lab's firmware and its TLS."""
    if with_tls:
        os.makedirs(os.path.join(lab, "mailbox"))
        place.start(ground.program("orrin"), lab=lab)
        ground.until(lambda: os.listdir(os.path.join(lab, "mailbox")), "the firmware's socket")
    else:
        place.start_firmware(lab)
    service = place.start_service(lab)
    ground.until(lambda: ground.is_listening(ground.SERVICE_PORT), "the bound port")
    time.sleep(SETTLED)
    return service


def end_all(place):
    for child in reversed(list(place.running)):
        place.end(child)


def medians(taken):
    """Rows of the medians of {(curve, series, x): values}."""
    return [(*key, statistics.median(values)) for key, values in taken.items()]


def descriptors_of(child):
    return len(os.listdir("/proc/%d/fd" % child.pid))


def resident_of(child):
    """KiB."""
    with open("/proc/%d/status" % child.pid) as lines:
        return next(int(line.split()[1]) for line in lines if line.startswith("VmRSS"))


def processor_milliseconds_of(child):
    """What the living threads have used, finer than the ticks of /proc/PID/stat."""
    total = 0
    for path in glob.glob("/proc/%d/task/*/schedstat" % child.pid):
        with open(path) as file:
            total += int(file.read().split()[0])
    return total / 1e6


def consoles(wanted):
    """Each console takes the place of the one before; those before stay open at their end."""
    taken = {}
    for series, mode in (("TCP", "consoles"), ("TLS", "consoles_tls")):
        with ground.Ground() as place:
            service = start_relay(place, place.path("lab"), with_tls=series == "TLS")
            run_client(mode, ground.SERVICE_PORT, 3)
            for count in up_to(CONSOLES, wanted.percent) * wanted.rounds:
                spent = run_client(mode, ground.SERVICE_PORT, count)
                taken.setdefault(("consoles", series, count), []).append(spent)
                time.sleep(0.05)  # the last console's close is seen
                taken.setdefault(("descriptors", series, count), []).append(
                    descriptors_of(service))
    return medians(taken)


def start_trip_peers(place):
    far = place.path("far.sock")
    place.start(ground.program("relay_ends"), "server", str(FAR_PORT), far)
    ground.until(lambda: os.path.exists(far), "the far end")
    place.start(ground.program("relay_floor"), str(FLOOR_PORT), far)
    place.start("socat", "-b131072", "TCP-LISTEN:%d,bind=127.0.0.1,reuseaddr,fork,nodelay"
                % SOCAT_PORT, "UNIX-CONNECT:" + far)
    start_relay(place, place.path("lab"))
    ports = {"service": ground.SERVICE_PORT, "socat": SOCAT_PORT, "floor": FLOOR_PORT}
    for name, port in ports.items():
        ground.until(lambda: ground.is_listening(port), name)
    return ports


def frames(wanted):
    """Trips of each size; both ways count for the rate."""
    taken = {}
    with ground.Ground() as place:
        ports = start_trip_peers(place)
        for number in range(wanted.rounds):
            order = [(size, name) for size in SIZES for name in ports]
            random.Random(number).shuffle(order)
            for size, name in order:
                trips = max(50, min(1500, 20_000_000 // size)) * min(wanted.percent, 100) // 100
                spent = run_client("trips", ports[name], size, max(trips, 10))
                taken.setdefault(("trips", name, size), []).append(spent)
                time.sleep(0.01)  # the far end and a forked relay see the close
    trips = sorted(medians(taken))
    return trips + [("rate", name, size, 2 * size / spent) for _, name, size, spent in trips]


def log_bytes(lab):
    return sum(os.path.getsize(path) for path in
               glob.glob(os.path.join(lab, "ProgramData", "Corvane", "Stewardry", "*")))


def traffic(wanted):
    """Trips of 128 KiB at full speed, a new console each second; a look at the service after each
    second, or after every few of a long run."""
    rows = []
    step = max(1, wanted.seconds // MOST_LOOKS)
    with ground.Ground() as place:
        lab = place.path("lab")
        service = start_relay(place, lab)
        client = subprocess.Popen([ground.program("growth_ends"), "traffic",
                                   str(ground.SERVICE_PORT), str(wanted.seconds)],
                                  stdout=subprocess.PIPE, text=True)
        place.running.append(client)
        for second, line in enumerate(client.stdout, start=1):
            if second % step != 0:
                continue
            rows += [("traffic rate", "MB/s", second, float(line.split()[1]) / 1e6),
                     ("traffic memory", "KiB resident", second, resident_of(service)),
                     ("traffic descriptors", "descriptors", second, descriptors_of(service)),
                     ("traffic logs", "KiB of logs", second, log_bytes(lab) / 1024)]
        if client.wait(ground.PATIENCE) != 0:
            sys.exit("the traffic broke after some %d seconds" % (len(rows) // 4 * step))
    return rows


def library(wanted):
    """The program's rows, of several runs: a moment's noise is in one of them."""
    taken = {}
    for _ in range(wanted.rounds):
        lines = subprocess.run([ground.program("growth_library"), str(wanted.percent)], check=True,
                               capture_output=True, text=True, timeout=600).stdout.splitlines()
        for curve, series, x, y in (line.split(",") for line in lines[1:]):
            taken.setdefault((curve, series, int(x)), []).append(float(y))
    return medians(taken)


def add_adapters(place, have, count):
    """Pairs of veth, each end an adapter with an address of its own (RFC 2544's network)."""
    steps = []
    for number in range(have, count, 2):
        names = ["grow%d" % (number + end) for end in (0, 1)]
        steps.append("link add %s type veth peer name %s" % tuple(names))
        for end, name in enumerate(names):
            host = number + end
            steps += ["link set %s up" % name,
                      "addr add 198.18.%d.%d/32 dev %s" % (host // 250, host % 250 + 1, name)]
    batch = place.write("adapters.batch", "\n".join(steps) + "\n")
    subprocess.run(["ip", "-batch", batch], check=True)


def start_once(place, name):
    lab = place.path(name)
    place.start_firmware(lab)
    began = time.monotonic()
    service = place.start_service(lab)
    ground.until(lambda: ground.is_listening(ground.SERVICE_PORT), "the bound port")
    spent = (time.monotonic() - began) * 1000
    time.sleep(SETTLED)
    used = processor_milliseconds_of(service)
    end_all(place)
    return spent, used


def start(wanted):
    """The service's start beside more and more adapters, and the processor time that it has used
    when it is at rest. The namespace begins with two. The wait for a network, 100 ms, is part of the
    first."""
    taken = {}
    have = 2
    with ground.Ground() as place:
        for count in up_to(ADAPTERS, wanted.percent):
            add_adapters(place, have, count)
            have = count
            time.sleep(SETTLED)  # the kernel's own work for new addresses
            for number in range(wanted.rounds):
                spent, used = start_once(place, "lab-%d-%d" % (count, number))
                taken.setdefault(("start", "to the bound port", count), []).append(spent)
                taken.setdefault(("start", "processor time", count), []).append(used)
    return medians(taken)


# In the order of the run. `start` fills the namespace, so it is the last.
CURVES = {"library": library, "consoles": consoles, "frames": frames, "traffic": traffic,
          "start": start}
