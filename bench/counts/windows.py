#!/usr/bin/env python3
"""The calls of a relayed trip on Windows, beside those on Linux: quillonsvc.exe under Wine with the
lab's driver, the relay's client and far end. Times under Wine mean nothing; the calls are those
that the service makes on Windows. `windows.py` prints the table, `windows.py --renew` puts it into
bench/README.md, too. Needs presets release and windows, built with -DSTEWARDRY_BENCH=ON.
"""
import collections
import os
import re
import subprocess
import sys

import counts
import ground
import measure

ROOT = os.path.dirname(os.path.dirname(counts.HERE))
README = os.path.join(ROOT, "bench", "README.md")
BEGIN, END = "<!-- made by bench/counts/windows.py -->\n", "<!-- end -->\n"
os.environ.setdefault("STEWARDRY_BIN", os.path.join(ROOT, "build", "release", "bin"))
os.environ.setdefault("STEWARDRY_WINDOWS_BIN", os.path.join(ROOT, "build", "windows", "bin"))
sys.path.insert(0, os.path.join(ROOT, "tests", "windows"))
import wine_lab  # noqa: E402  (the path above leads to it)

TRIPS = 300
TURNS = 120  # of counted_turns, with the warm-up
LINE = "log line"
# What enters the system or may wait. Wine prints each of these calls.
CALLS = {
    "KERNEL32": ("CancelIoEx", "CloseHandle", "CreateEventA", "CreateFileA", "DeviceIoControl",
                 "GetOverlappedResult", "GetQueuedCompletionStatus", "PostQueuedCompletionStatus",
                 "ReadFile", "ReleaseMutex", "ReleaseSemaphore", "ResetEvent", "SetEvent",
                 "SetFilePointerEx", "SetWaitableTimer", "Sleep", "SwitchToThread",
                 "WaitForMultipleObjects", "WaitForMultipleObjectsEx", "WaitForSingleObject",
                 "WaitForSingleObjectEx", "WriteFile"),
    "ws2_32": ("WSAEnumNetworkEvents", "WSAEventSelect", "WSAPoll", "WSARecv", "WSAResetEvent",
               "WSASend", "WSASetEvent", "WSAWaitForMultipleEvents", "accept", "ioctlsocket",
               "recv", "select", "send"),
    "msvcrt": ("_commit", "_lseek", "_lseeki64", "_write", "fflush", "fseek", "ftell", "fwrite"),
}


def calls_in(path, begin=0):
    """The calls that Wine has printed since the file had `begin` bytes."""
    with open(path, errors="replace") as file:
        file.seek(begin)
        return collections.Counter(re.findall(r":Call \w+\.(\w+)\(", file.read()))


class Service:
    """The service under Wine. Its calls stand in a file."""

    def __init__(self, place):
        self.prefix = wine_lab.prefix()
        names = ";".join("%s.%s" % (dll, name) for dll, names in CALLS.items() for name in names)
        self.prefix.run("reg", "add", "HKCU\\Software\\Wine\\Debug", "/v", "RelayInclude", "/d",
                        names)
        place.start_firmware(place.path("lab"), "noinput")
        listener = "TCP-LISTEN:%s,bind=127.0.0.1,reuseaddr,nodelay" % wine_lab.FIRMWARE_PORT
        place.start("socat", "-b262144", listener,
                    "UNIX-CONNECT:" + place.path("lab", "mailbox", "bench"))
        ground.until(lambda: ground.is_listening(int(wine_lab.FIRMWARE_PORT)), "socat")
        self.bridge = self.start(wine_lab.program("tavrin_bridge.exe"), wine_lab.FIRMWARE_PORT)
        ground.until(lambda: "bridge yes" in wine_lab.setup("status"), "the bridge")
        self.calls = place.path("calls.txt")
        with open(self.calls, "wb") as output:
            self.child = self.start(self.prefix.service, "ult", output=output, debug="+relay")
        ground.until(lambda: all(map(ground.is_listening, (ground.SERVICE_PORT, ground.KVM_PORT))),
                     "the service")

    def start(self, *words, output=subprocess.DEVNULL, debug="-all"):
        return subprocess.Popen([*wine_lab.HARMLESS, "wine", *words], stdin=subprocess.DEVNULL,
                                stdout=subprocess.DEVNULL, stderr=output,
                                env=dict(self.prefix.env, WINEDEBUG=debug))

    def end(self):
        for child in (self.child, self.bridge):
            child.kill()
            child.wait()

    def count(self, run):
        """The calls while `run` runs, by their names."""
        before = os.path.getsize(self.calls)
        run()
        return calls_in(self.calls, before)

    def count_lines(self, place):
        # Wine takes /dev/null for a console, on which each letter is a call.
        printed, traced = place.path("printed.txt"), place.path("traced.txt")
        with open(printed, "wb") as output, open(traced, "wb") as trace:
            subprocess.run([*wine_lab.HARMLESS, "wine", wine_lab.program("counted_turns.exe")],
                           stdin=subprocess.DEVNULL, stdout=output, stderr=trace, check=True,
                           cwd=place.folder, env=dict(self.prefix.env, WINEDEBUG="+relay"))
        return calls_of_a_line(calls_in(traced))


def count_linux():
    with ground.Ground() as place:
        file = place.path("strace.txt")
        subprocess.run(["strace", "-f", "-c", "-o", file, ground.program("counted_turns")],
                       check=True, stdout=subprocess.DEVNULL)
        counted = counts.count_calls(lambda *_: False)
        return dict({LINE: calls_of_a_line(measure.calls_in(file))}, **counted)


def calls_of_a_line(calls):
    """counted_turns starts and ends once, and writes each line in a turn."""
    return {call: n / TURNS for call, n in calls.items() if n >= TURNS / 2}


def count_windows():
    """{relay and mode: {call: n}}, and those of a log line."""
    counted = {}
    with ground.Ground() as place:
        service = Service(place)
        try:
            counted[LINE] = service.count_lines(place)
            for relay, name in counts.RELAYS.items():
                for mode, word in counts.MODES.items():
                    calls = service.count(lambda: measure.run_client(name, word, TRIPS))
                    trips = TRIPS * 1.1  # with the warm-up
                    counted[relay + " " + mode] = {
                        call: n / trips for call, n in calls.items() if n / trips >= counts.FEW}
                    measure.settle(name)
        finally:
            service.end()
    return counted


def words_of(calls):
    most = sorted(calls.items(), key=lambda item: (-round(item[1], 1), item[0]))
    return ", ".join("%s %.1f" % item for item in most)


def table(windows, linux):
    lines = ["| of one | Windows (Wine) | Linux |", "|---|---|---|"]
    for row in linux:
        lines.append("| %s | %s | %s |" % (row, words_of(windows[row]), words_of(linux[row])))
    return "\n".join(lines) + "\n"


def main():
    ground.enter()
    os.sched_setaffinity(0, range(os.cpu_count()))
    text = table(count_windows(), count_linux())
    print(text, end="")
    if sys.argv[1:] == ["--renew"]:
        with open(README) as file:
            before, _, rest = file.read().partition(BEGIN)
        with open(README, "w") as file:
            file.write(before + BEGIN + "\n" + text + "\n" + END + rest.partition(END)[2])


if __name__ == "__main__":
    main()
