# stewardry diagnose: every fault of the catalogue is brought about in the lab, and the tool must name
# that fault and nothing else. Where the lab has no lever for a fault (a hanging thread, a console
# that does not read), the running service's log gets the lines that the service writes then.
import collections
import datetime
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import zipfile

import jsonschema
from stewardry_lab import (ADAPTER, BIN, BOUND, HOST, PORT, LabTest, connect,
                           connection_is_dropped, curl, run, until)

ROOT = pathlib.Path(__file__).parents[2]
CATALOGUE = json.loads((ROOT / "tools/diagnosis/faults.json").read_text(encoding="utf-8"))["faults"]
SCHEMAS = {name: json.loads((ROOT / "docs/schemas" / (name + ".schema.json")).read_text())
           for name in ("diagnosis", "status")}
KVM_BOUND = "Bind to port 22 successful"
STAMP = "%Y/%m/%d %H:%M:%S"
seen = {}  # of each fault: how it was brought about, and what the tool said


def by_lines(*texts, age=0, log="tavrinLog.log"):
    """Returns a lever that appends the lines, `age` seconds old, to a log of a healthy service."""
    def lever(test):
        test.start_both()
        test.append(texts, age, log)
    lever.__doc__ = "line: " + texts[-1]
    return lever


class Diagnose(LabTest):
    # Each lever's docstring goes into the printed table.

    def no_driver(self):
        """no firmware"""
        self.start_service("No device interfaces present")

    def driver_refuses(self):
        """a mailbox without a listener"""
        self.start_orrin().end(signal.SIGKILL)
        self.start_service("Failed in open device")

    def firmware_silent(self):
        """silence on"""
        self.start_orrin("silence on")
        self.start_service("intThreadFunction before Processread")
        self.age()

    def no_log(self):
        """the log is deleted"""
        self.start_both()
        os.remove(self.log_path())

    def crashed(self):
        """the process is killed"""
        self.start_both()
        self.service.end(signal.SIGKILL)

    def device_removed(self):
        """the firmware goes away"""
        self.start_both()
        self.orrin.end(signal.SIGKILL)
        self.logged("bstatus 0")

    def status_failed(self):
        """status 0, a connection"""
        self.start_both("status 0")
        self.assertTrue(connection_is_dropped())
        self.logged(BOUND, 2)

    def firmware_was_down(self):
        """status 2, a request"""
        self.start_both("status 2")
        curl()
        self.logged("ORRIN is down")

    def not_provisioned(self):
        """provision off, a connection"""
        self.start_both("provision off")
        self.assertTrue(connection_is_dropped())
        self.logged(BOUND, 2)

    def dash_budget(self):
        """provision off, twenty connections"""
        self.start_both("provision off")
        for count in range(2, 22):
            self.assertTrue(connection_is_dropped())
            if count < 21:
                self.logged(BOUND, count)
        self.service.exit_code()

    def port_664_taken(self):
        """another listener"""
        self.start_orrin()
        with socket.create_server((HOST, PORT)):
            self.start_service(None).exit_code()

    def reply_without_console(self):
        """a reply, no console"""
        self.start_both()
        self.orrin.execute("frame 41 08 00")
        self.logged("Socket is closed")

    def unknown_command(self):
        """frame 08"""
        self.start_both()
        self.orrin.execute("frame 08")
        self.logged("carries no command")

    def resume_unprovisioned(self):
        """provision off, resume"""
        self.start_both("provision off")
        self.orrin.execute("resume")
        self.logged("Skip non DASH commands")

    def consoles_fight(self):
        """two consoles in turn"""
        self.start_both()
        for count in range(1, 8):
            console = socket.create_connection((HOST, PORT), source_address=(
                "127.0.0.%d" % (1 + count % 2), 0))
            self.addCleanup(console.close)
            self.logged("Forwarding HTTPS DASH request", count)

    def kvm_enabled(self, *trust):
        self.start_both()
        self.orrin.execute("kvm on", "kvm trust %s 0" % (trust or (HOST,))[0])
        self.logged(KVM_BOUND)
        self.logged("& Port:")

    def kvm_disabled(self):
        """a viewer after a session"""
        self.kvm_enabled()
        connect(22).close()
        self.logged("Free successful")
        self.assertTrue(connection_is_dropped(22))
        self.logged(KVM_BOUND, 2)

    def kvm_address_refused(self):
        """trust another address"""
        self.kvm_enabled("192.0.2.99")
        self.assertTrue(connection_is_dropped(22))
        self.logged("KVM IP validation failed")
        self.logged(KVM_BOUND, 2)

    def kvm_second_viewer(self):
        """two viewers"""
        self.kvm_enabled()
        self.addCleanup(connect(22).close)
        self.logged("Response returned for KVM request")
        self.assertTrue(connection_is_dropped(22))
        self.logged("New KVM connection dropped")

    def kvm_budget(self):
        """twenty viewers after a session"""
        self.kvm_enabled()
        connect(22).close()
        self.logged("Free successful")
        for count in range(2, 22):
            self.assertTrue(connection_is_dropped(22))
            if count < 21:
                self.logged(KVM_BOUND, count)

    def port_22_taken(self):
        """another listener"""
        self.start_both()
        taken = socket.create_server((HOST, 22))
        self.addCleanup(taken.close)
        self.orrin.execute("kvm on")
        self.logged("Sock create failed for 22", 20)

    def managed(self):
        subprocess.run([os.path.join(BIN, "quillonsvc"), "install"], check=True,
                       env=self.environment(), stdout=subprocess.DEVNULL)
        self.start_orrin()
        self.manager = self.start("scm", "scm", "start")
        self.logged(BOUND)

    def not_installed(self):
        """nothing"""

    def stopped(self):
        """scm stop"""
        self.managed()
        self.start("stop", "scm", "stop").exit_code()
        self.manager.exit_code()

    def preshutdown_hung(self):
        """scm preshutdown"""
        self.managed()
        self.start("preshutdown", "scm", "preshutdown").exit_code()
        self.logged("CancelIO called preshutdown")
        self.age()

    def clock_set_back(self):
        """line: an hour older"""
        self.start_both()
        self.append(["Exiting HTTPS Callback"], 3600)

    def log_not_written(self):
        """another process's log in its place"""
        self.start_both()
        self.write(re.sub(r"\[\d+\]-", "[1]-", self.log()), self.log_path())
        until(lambda: self.findings() == ["log-not-written"], "the end of the start's time")

    LINES = {
        "version-too-short": by_lines("GetTavrinVersion answer of 12 bytes is too short"),
        "reader-ended": by_lines("GetQueuedCompletionStatus failed 31"),
        "offline": by_lines("KVMStatus 0", age=60),
        "console-does-not-read":
            by_lines("Sockwrite Failed in WriteDASHRXdata because of block"),
        "power-refused": by_lines("Returned error 5", " Power option failed PowerOption: 0x3"),
        "indication-not-posted": by_lines("Indication not posted: the subscription names no host"),
        "subscriber-unreachable": by_lines("Posting Indication Alert", age=60),
        "kvm-thread-hangs": by_lines("TerminateThread for Mouse failed", "InitKVM failed"),
        "kvm-agent-not-started": by_lines("Launch KVM_Agent failed", "InitKVM failed"),
        "kvm-agent-restarted": by_lines("KVM Agent Launched again"),
        "kvm-no-input": by_lines("not calling keybd_event", log="tavrinKeyboardMouseLog.log"),
        "kvm-viewer-does-not-read": by_lines("KVM Sockwrite Failed because of block",
                                             "socket write crossed 100 attempts; socket 1a"),
    }

    def environment(self):
        return dict(os.environ, STEWARDRY_LAB=self.folder)

    def append(self, texts, age, log="tavrinLog.log"):
        at = datetime.datetime.now() - datetime.timedelta(seconds=age)
        service = self.service.child.pid
        form = ("{at:%a %b %d %H:%M:%S %Y}: {text}\r\n" if "Keyboard" in log else
                "INFO:  <{at:" + STAMP + "}>[{pid}]-[ 9 M ] {text} <thread=77 (0x4d)>\r\n")
        with open(self.log_path(log), "a", newline="", encoding="utf-8") as file:
            file.writelines(form.format(at=at, pid=service, text=text) for text in texts)

    def age(self):
        """Makes the service log an hour older. The service must not be writing."""
        hour = datetime.timedelta(hours=1)
        older = re.sub(r"(?<=<)\d{4}/[\d/ :]+(?=>)", lambda found: (
            datetime.datetime.strptime(found[0], STAMP) - hour).strftime(STAMP), self.log())
        self.write(older, self.log_path())

    def tool(self, *words):
        """Runs the tool with --json. Returns its output and its exit code."""
        done = subprocess.run([os.path.join(BIN, "stewardry"), *words, "--json"], check=False,
                              env=self.environment(), stdout=subprocess.PIPE, timeout=60)
        document = json.loads(done.stdout)
        jsonschema.validate(document, SCHEMAS["diagnosis" if words[0] == "diagnose" else "status"])
        return document, done.returncode

    def findings(self):
        document, code = self.tool("diagnose")
        verdicts = collections.Counter(found["verdict"] for found in document["findings"])
        self.assertEqual(code, 2 if verdicts["down"] else 1 if verdicts["degraded"] else 0, document)
        return [found["id"] for found in document["findings"]]

    def test_each_fault_is_named_and_nothing_else(self):
        for fault in (row["id"] for row in CATALOGUE):
            lever = self.LINES.get(fault) or getattr(type(self), fault.replace("-", "_"))
            with self.case(fault):
                lever(self)
                seen[fault] = lever.__doc__, self.findings()
                self.assertEqual(seen[fault][1], [fault])
                self.doCleanups_of_case()
        for fault, (how, said) in seen.items():
            print("%-26s %-48s %s" % (fault, how[:48], " ".join(said) or "nothing"))

    def test_a_day_of_traffic_on_a_healthy_host_gives_no_finding(self):
        self.managed()
        for start in range(2):
            self.orrin = self.processes[0]
            bound = self.log().count(KVM_BOUND)
            for shape in range(60):
                if shape % 3 == 0:  # leaves without a byte
                    with connect():
                        self.orrin.saw("announces a DASH connection")
                elif shape % 3 == 1:
                    curl("/echo", data=b"x" * 200_000)
                else:
                    curl()
            for viewer in range(3):
                trusted = self.log().count("Setting KVM IP and port")
                self.orrin.execute("kvm on", "kvm trust %s 0" % HOST, "resume")
                # The port stays bound from the first viewer on, and refuses until KVM is enabled.
                self.logged("Setting KVM IP and port", trusted + 1)
                self.logged(KVM_BOUND, bound + 1)
                with connect(22) as peer:
                    self.assertEqual(peer.recv(4), b"RFB ")
                self.logged("Free successful", 3 * start + viewer + 1)
            self.assertEqual(self.findings(), [])
            status, code = self.tool("status")
            self.assertEqual((status["verdict"], code), ("healthy", 0))
            self.assertTrue(status["tray"]["value"]["provisioned"])
            self.assertEqual(status["service"]["value"]["state"], "running")
            if start == 0:
                self.start("stop", "scm", "stop").exit_code()
                self.manager.exit_code()
                self.manager = self.start("again", "scm", "start")
                self.logged(BOUND, 2)

    def test_bad_input_is_reported_and_ends_in_time(self):
        self.start_both()
        with open(self.log_path(), "ab") as file:
            file.write(os.urandom(1 << 20) + b"\0" * (1 << 20) + b"\n" + "Zeit: ü\n".encode("utf-16"))
        self.assertEqual(self.findings(), [])
        with socket.socket(socket.AF_UNIX) as hung:  # a manager that accepts and never answers
            hung.bind(self.path("scm"))
            hung.listen()
            os.makedirs(self.path("services"))
            self.write("binaryPath=x", "services", "QuillonSvc")
            self.assertIn("did not answer", self.tool("status", "--quick")[0]["service"]["why"])

    def test_a_masked_collection_holds_no_address_or_name(self):
        self.start_both()
        curl()
        with open(self.log_path(), "a", encoding="utf-8") as file:  # longer than the part that is masked
            file.write("INFO: " + "x" * (600 << 10) + ADAPTER["address"] + "\n"
                       "INFO: subscribing to alerts.lab.test\n")
        subprocess.run([os.path.join(BIN, "stewardry"), "collect", self.path("x.zip"), "--mask"],
                       check=True, env=self.environment(), stdout=subprocess.DEVNULL)
        with zipfile.ZipFile(self.path("x.zip")) as archive:
            self.assertIsNone(archive.testzip())
            self.assertLessEqual({"README.txt", "status.json", "diagnosis.txt", "events.txt",
                                  "logs/tavrinLog.log"}, set(archive.namelist()))
            for name in archive.namelist():
                text = archive.read(name).decode()
                for secret in (ADAPTER["address"], "0xa0200c0", ADAPTER["mac"].lower(),
                               "Hostname: " + socket.gethostname(), "alerts.lab", "xxxx"):
                    self.assertNotIn(secret, text.lower() if secret.islower() else text, name)
        again = subprocess.run([os.path.join(BIN, "stewardry"), "collect", self.path("x.zip")],
                               check=False, env=self.environment(), capture_output=True)
        self.assertEqual(again.returncode, 4, again.stderr)  # it overwrites nothing

    def doCleanups_of_case(self):
        while len(self._cleanups) > 1:  # the first one closes the lab
            function, arguments, named = self._cleanups.pop()
            function(*arguments, **named)


if __name__ == "__main__":
    run()
