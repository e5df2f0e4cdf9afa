"""KVM sessions through the whole service: gvnccapture and libvncclient on port 22, orrin's screen
behind the mailbox, and a stand-in agent that records the events it would play into the console."""
import os
import re
import signal

from stewardry_lab import HOST, LabTest, connection_is_dropped, run, until
from vnc import VNC_PORT, Viewer, capture, pixels

LISTENING = "Bind to port %d successful" % VNC_PORT
ANNOUNCED = "announces a KVM connection to port 22"
CLOSED = "the KVM connection has ended, port (22)"
# The US layout of a PC keyboard: scan codes of set 1 by virtual key.
SCAN = {0x10: 0x2A, 0x11: 0x1D, 0x12: 0x38, 0x20: 0x39, 0x2E: 0x53, 0xBC: 0x33, 0xBE: 0x34}
for first, keys in ((0x02, "1234567890"), (0x10, "QWERTYUIOP"), (0x1E, "ASDFGHJKL"),
                    (0x2C, "ZXCVBNM")):
    SCAN.update({ord(key): first + i for i, key in enumerate(keys)})
SCAN.update(zip(range(0x60, 0x6A), (0x52, 0x4F, 0x50, 0x51, 0x4B, 0x4C, 0x4D, 0x47, 0x48, 0x49)))
SIGNS = {" ": 0x20, ",": 0xBC, ".": 0xBE, "!": 0x31, "@": 0x32, "#": 0x33}


def event(key, release=False, extended=False):
    return "key 0x%02X scan 0x%02X%s %s" % (key, SCAN[key], " extended" if extended else "",
                                            "release" if release else "press")


def typed(text):
    """The events of a US layout for a text whose characters are pressed and released."""
    events = []
    for character in text:
        if ord(character) > 0xFF:
            continue  # a keysym that has no key
        if ord(character) > 0x7E:
            digits = [0x60 + int(digit) for digit in "0%03d" % ord(character)]
            events += [event(0x12), *(event(digit, release) for digit in digits
                                      for release in (False, True)), event(0x12, True)]
            continue
        shifted = character.isupper() or character in "!@#"
        key = SIGNS.get(character) or ord(character.upper())
        events += [event(0x10)] * shifted + [event(key)]
        events += [event(0x10, True)] * shifted + [event(key, True)]
    return events


class Kvm(LabTest):
    """A service with KVM enabled, and the events that its agent has recorded."""

    def enable(self, *commands):
        self.start_both()
        self.orrin.execute("kvm on", *commands)
        self.logged(LISTENING)

    def viewer(self):
        """Returns a viewer that sees the screen, once a new agent is ready to play its input."""
        runs = len(self.agents())
        viewer = Viewer(self)
        self.processes.append(viewer)
        viewer.execute("connect %s %d" % (HOST, VNC_PORT))
        until(lambda: len(self.agents()) > runs, "the agent")
        return viewer

    def agents(self):
        return [int(number) for number in
                re.findall(r"^agent (\d+) runs$", self.read(self.agent_path()), re.M)]

    def kill_agent(self, number):
        os.kill(number, signal.SIGKILL)

    def played(self, kind="key"):
        return re.findall("^%s .*$" % kind, self.read(self.agent_path()), re.M)

    def assert_played(self, expected):
        until(lambda: len(self.played()) >= len(expected), "%d key events" % len(expected))
        self.assertEqual(self.played(), expected)

    def painted(self):
        path = self.path("painted.ppm")
        self.orrin.execute("kvm save " + path)
        return pixels(path)

    def assert_captures_picture(self):
        self.assertEqual(capture(self.path("shot.png")), self.painted())

    def ended(self, count=1):
        until(lambda: self.orrin.text().count(CLOSED) >= count, "the end of session %d" % count)
        self.logged("Finish KVM Session", count)


class Sessions(Kvm):
    COUNT = 20  # of sessions in a row

    def test_capture_is_the_painted_picture(self):
        self.enable("kvm paint 4711")
        self.assert_captures_picture()
        self.ended()
        self.orrin.saw_all([
            "KVM_ENABLE_STATUS", "InitializeKeyboardMousePointers", "GetOrrinStatus", ANNOUNCED,
            "WriteKVMPacket", "DeAllocateKVM_KB_MB_Buffers", CLOSED])
        self.assertNotIn("Match:Fail", self.log())

    def test_typed_text_arrives_as_its_keys(self):
        self.enable()
        viewer = self.viewer()
        text = "Hello, Wien 2024! äÖß €@#."
        viewer.execute("type " + text)
        self.assert_played(typed(text))
        held = ["key 0xffe3 down", "key 0xffe9 down", "key 0xffff down"]
        viewer.execute(*held, *[line.replace("down", "up") for line in reversed(held)])
        self.assert_played(typed(text) + [
            event(0x11), event(0x12), event(0x2E, extended=True),
            event(0x2E, True, True), event(0x12, True), event(0x11, True)])

    def test_pointer_arrives_as_its_moves_buttons_and_notches(self):
        self.enable()
        viewer = self.viewer()
        viewer.execute("pointer 0 10 10", "pointer 1 10 10", "pointer 1 100 50", "pointer 0 100 50",
                    "pointer 4 100 50", "pointer 0 100 50", "pointer 8 100 50", "pointer 16 100 50",
                    "pointer 0 0 0", "pointer 0 0 0")
        until(lambda: len(self.played("mouse")) >= 10, "ten pointer events")
        words = [(line + " ").split(" ", 2) for line in self.played("mouse")]
        self.assertEqual([word[2].strip() for word in words], [
            "move", "left-down", "move", "left-up", "right-down", "right-up", "wheel 120",
            "wheel -120", "move", ""])
        places = [tuple(map(int, word[1].split(","))) for word in words]
        self.assertEqual([places[i] for i in (0, 2, 8)], [places[1], places[7], (0, 0)])
        # Ten and a hundred pixels on one scale; the service's division loses less than one.
        self.assertAlmostEqual(places[2][0] / places[0][0], 10, delta=0.1)
        self.assertAlmostEqual(places[2][1] / places[0][1], 5, delta=0.1)

    def test_dead_agent_is_replaced(self):
        self.enable()
        viewer = self.viewer()
        self.kill_agent(self.agents()[-1])
        until(lambda: len(self.agents()) == 2, "another agent")
        viewer.execute("type z")
        self.assert_played(typed("z"))

    def test_sessions_follow_each_other(self):
        self.start_both()
        for session in range(1, self.COUNT + 1):
            self.orrin.execute("kvm on")
            self.logged("Setting KVM Enabled to true", session)
            self.logged(LISTENING)
            viewer = self.viewer()
            viewer.execute("type " + "abc"[session % 3])
            self.assert_played(typed("".join("abc"[i % 3] for i in range(1, session + 1))))
            if session % 3 == 1:
                self.orrin.execute("kvm close")
                until(lambda: not viewer.try_execute("changed"), "the end of the connection")
            elif session % 3 == 2:
                viewer.execute("drop")
            viewer.leave()
            self.ended(session)


class Access(Kvm):
    def test_only_the_trusted_address_is_accepted_from_any_port(self):
        self.enable("kvm trust 192.0.2.77 5900")
        self.logged("IP: 0x4d0200c0 & Port: 0x170c")
        self.assertTrue(connection_is_dropped(VNC_PORT))
        self.logged("KVM IP validation failed")
        self.assertNotIn(ANNOUNCED, self.orrin.text())
        self.orrin.execute("kvm trust 127.0.0.1 1")
        self.logged("IP: 0x100007f & Port: 0x1")
        self.logged(LISTENING, 2)
        self.assert_captures_picture()
        self.ended()
        self.assertTrue(connection_is_dropped(VNC_PORT), "the next session needs an enable")
        self.assertEqual(self.orrin.text().count(ANNOUNCED), 1)

    def test_first_viewer_sees_each_change_beside_a_refused_second(self):
        self.enable()
        first = self.viewer()
        self.assertTrue(connection_is_dropped(VNC_PORT))
        self.logged("New KVM connection dropped")
        for _ in range(20):
            self.orrin.execute("kvm paint")
            first.execute("changed", "save " + self.path("seen.ppm"))
            self.assertEqual(pixels(self.path("seen.ppm")), self.painted())
        self.assertEqual(self.orrin.text().count(ANNOUNCED), 1)

    def test_flood_of_keys_arrives_whole_and_in_order(self):
        self.enable()
        self.viewer()
        self.orrin.execute("kvm flood keys 4000")
        letters = "abcdefghijklmnopqrstuvwxyz"
        self.assert_played(typed("".join(letters[i % 26] for i in range(2000))))


if __name__ == "__main__":
    run()
