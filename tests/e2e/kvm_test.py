"""KVM sessions through the whole service: viewers nobody here wrote on port 22, orrin's screen at
the far end, and a stand-in agent that writes down what it would play into the console."""
import os
import re
import signal
import unittest

from stewardry_lab import HOST, LabTest, run, until
from vnc import VNC_PORT, Viewer, capture, is_refused, pixels

AT_WORK = "Bind to port %d successful" % VNC_PORT
ANNOUNCED = "announces a KVM connection to port 22"
ENDED = "KVM: session ended"
CLOSED = "the KVM connection has ended, port (22)"
CONNECT = "connect %s %d" % (HOST, VNC_PORT)
# The US layout of a PC keyboard: scan codes of set 1, virtual keys by their place.
SCAN = {0x10: 0x2A, 0x11: 0x1D, 0x12: 0x38, 0x20: 0x39, 0x2E: 0x53, 0xBC: 0x33, 0xBE: 0x34}
for first, keys in ((0x02, "1234567890"), (0x10, "QWERTYUIOP"), (0x1E, "ASDFGHJKL"),
                    (0x2C, "ZXCVBNM")):
    SCAN.update({ord(key): first + i for i, key in enumerate(keys)})
SCAN.update(zip(range(0x60, 0x6A), (0x52, 0x4F, 0x50, 0x51, 0x4B, 0x4C, 0x4D, 0x47, 0x48, 0x49)))
PLAIN = {" ": 0x20, ",": 0xBC, ".": 0xBE}
SHIFTED = {"!": 0x31, "@": 0x32, "#": 0x33}


def event(key, release=False, extended=False):
    return "key 0x%02X scan 0x%02X%s %s" % (key, SCAN[key], " extended" if extended else "",
                                            "release" if release else "press")


def pressed_and_released(*keys):
    return [event(key, release) for key in keys for release in (False, True)]


def typed(text):
    """What a US layout makes of a text whose characters are pressed and released."""
    events = []
    for character in text:
        shifted = character.isupper() or character in SHIFTED
        if ord(character) > 0xFF:
            continue  # a keysym that has no key
        if ord(character) > 0x7E:
            digits = [0x60 + int(digit) for digit in "%03d" % ord(character)]
            events += [event(0x12), *pressed_and_released(0x60, *digits), event(0x12, True)]
            continue
        key = PLAIN.get(character) or SHIFTED.get(character) or ord(character.upper())
        around = ([event(0x10)], [event(0x10, True)]) if shifted else ([], [])
        events += [*around[0], event(key), *around[1], event(key, True)]
    return events


class Kvm(LabTest):
    """A service with KVM on, and what its agent has played."""

    def enable(self, *commands):
        self.start_both()
        self.orrin.tell("kvm on", *commands)
        self.logged(AT_WORK)

    def enable_again(self):
        self.orrin.tell("kvm on")
        self.logged("Setting KVM Enabled to true", self.orrin.text().count("KVM_ENABLE_STATUS"))

    def viewer(self):
        """A viewer that sees the screen, with an agent that is ready to play its input."""
        runs = len(self.agents())
        viewer = Viewer(self)
        self.processes.append(viewer)
        viewer.tell(CONNECT)
        until(lambda: len(self.agents()) > runs, "the agent")
        return viewer

    def agent_lines(self):
        return self.read(self.agent_path()).splitlines()

    def agents(self):
        return [int(number) for number in
                re.findall(r"^agent (\d+) runs$", self.read(self.agent_path()), re.M)]

    def kill_agent(self, number):
        os.kill(number, signal.SIGKILL)

    def played(self, kind="key"):
        return [line for line in self.agent_lines() if line.startswith(kind + " ")]

    def assert_played(self, expected, kind="key"):
        until(lambda: len(self.played(kind)) >= len(expected), "%d %s events" % (len(expected), kind))
        self.assertEqual(self.played(kind), expected)

    def painted(self):
        path = self.path("painted.ppm")
        self.orrin.tell("kvm save " + path)
        return pixels(path)

    def ended(self, count=1):
        until(lambda: self.orrin.text().count(CLOSED) >= count, "the end of session %d" % count)
        self.logged("Finish KVM Session", count)


class Sessions(Kvm):
    def test_a_viewer_sees_other_pixels_than_the_firmware_painted(self):
        self.enable("kvm paint 4711")
        shot = capture(self.path("shot.png"))
        self.assertEqual(shot, self.painted())
        self.ended()
        self.orrin.saw_all([
            "KVM_ENABLE_STATUS", "InitializeKeyboardMousePointers", "GetOrrinStatus", ANNOUNCED,
            "WriteKVMPacket", "DeAllocateKVM_KB_MB_Buffers", CLOSED])
        self.assertIn("told to go", self.agent_lines())
        self.assertNotIn("Match:Fail", self.log())

    def test_a_screen_that_changes_reaches_its_viewer_torn(self):
        self.enable()
        viewer = self.viewer()
        for _ in range(20):
            self.orrin.tell("kvm paint")
            viewer.tell("changed", "save " + self.path("seen.ppm"))
            self.assertEqual(pixels(self.path("seen.ppm")), self.painted())

    def test_typed_text_arrives_as_other_keys(self):
        self.enable()
        viewer = self.viewer()
        text = "Hello, Wien 2024! äÖß €@#."
        viewer.tell("type " + text)
        self.assert_played(typed(text))
        held = ["key 0xffe3 down", "key 0xffe9 down", "key 0xffff down"]
        viewer.tell(*held, *[line.replace("down", "up") for line in reversed(held)])
        self.assert_played(typed(text) + [
            event(0x11), event(0x12), event(0x2E, extended=True),
            event(0x2E, True, True), event(0x12, True), event(0x11, True)])

    def test_a_drag_arrives_as_other_moves(self):
        self.enable()
        viewer = self.viewer()
        viewer.tell("pointer 0 10 10", "pointer 1 10 10", "pointer 1 100 50", "pointer 0 100 50",
                    "pointer 4 100 50", "pointer 0 100 50", "pointer 8 100 50", "pointer 16 100 50",
                    "pointer 0 0 0", "pointer 0 0 0")
        until(lambda: len(self.played("mouse")) >= 10, "ten pointer events")
        words = [line.split(" ", 2) for line in self.played("mouse")]
        self.assertEqual([(word + [""])[2] for word in words], [
            "move", "left-down", "move", "left-up", "right-down", "right-up", "wheel 120",
            "wheel -120", "move", ""])
        places = [tuple(map(int, word[1].split(","))) for word in words]
        self.assertEqual([places[i] for i in (0, 2, 8)],
                         [places[1], places[7], (0, 0)])
        # Ten and a hundred pixels on one scale; a division that truncates loses less than one.
        self.assertAlmostEqual(places[2][0] / places[0][0], 10, delta=0.1)
        self.assertAlmostEqual(places[2][1] / places[0][1], 5, delta=0.1)

    def test_twenty_sessions_wear_something_out(self):
        self.start_both()
        for session in range(1, 21):
            self.enable_again()
            self.logged(AT_WORK)
            viewer = self.viewer()
            viewer.tell("type " + "abc"[session % 3])
            until(lambda: len(self.played()) >= 2 * session, "the key of session %d" % session)
            viewer.leave()
            self.ended(session)
        self.assertEqual(self.played(), typed("".join("abc"[i % 3] for i in range(1, 21))))
        self.assertEqual(len(self.agents()), 20)


class Doors(Kvm):
    def test_a_stranger_is_let_in(self):
        self.enable("kvm trust 192.0.2.77 5900")
        self.assertTrue(is_refused())
        self.logged("KVM IP validation failed")
        self.assertNotIn(ANNOUNCED, self.orrin.text())
        self.orrin.tell("kvm trust 127.0.0.1 1")
        self.logged("IP: 0x100007f & Port: 0x1")
        self.logged(AT_WORK, 2)
        self.assertEqual(capture(self.path("shot.png")), self.painted())
        self.ended()

    def test_a_second_viewer_takes_the_first_ones_place(self):
        self.enable()
        first = self.viewer()
        self.assertTrue(is_refused())
        self.logged("New KVM connection dropped")
        self.orrin.tell("kvm paint")
        first.tell("changed", "save " + self.path("seen.ppm"))
        self.assertEqual(pixels(self.path("seen.ppm")), self.painted())
        self.assertEqual(self.orrin.text().count(ANNOUNCED), 1)

    def test_a_door_stays_open_behind_a_session(self):
        self.enable()
        self.viewer().leave()
        self.ended()
        self.assertTrue(is_refused())
        self.assertEqual(self.orrin.text().count(ANNOUNCED), 1)

    def test_no_address_of_the_rings_lets_a_session_begin(self):
        self.enable("kvm region withhold")
        self.assertTrue(is_refused())
        self.logged("InitKVM failed")
        self.assertIn("Invalid keyboard and mouse buffer address", self.side_log())
        self.assertNotIn(ANNOUNCED, self.orrin.text())
        self.orrin.tell("kvm region give")
        self.logged(AT_WORK, 2)
        self.assertEqual(capture(self.path("shot.png")), self.painted())


class Mishaps(Kvm):
    FLOOD = 9000  # a ring has room for 8189

    def test_a_viewer_that_vanishes_keeps_its_session(self):
        self.enable()
        self.viewer().tell("drop")
        self.ended()
        self.assertEqual(self.agent_lines().count("told to go"), 1)
        self.enable_again()
        self.viewer().tell("type x")
        until(lambda: self.played(), "a key of the second session")

    def test_a_session_ended_by_the_firmware_lives_on(self):
        self.enable()
        viewer = self.viewer()
        self.orrin.tell("kvm close")
        self.ended()
        self.assertFalse(viewer.try_("changed"))
        viewer.leave()
        self.enable_again()
        self.viewer().tell("type y")
        self.assert_played(typed("y"))

    def test_a_dead_agent_stays_dead(self):
        self.enable()
        viewer = self.viewer()
        self.kill_agent(self.agents()[-1])
        until(lambda: len(self.agents()) == 2, "another agent")
        viewer.tell("type z")
        self.assert_played(typed("z"))

    def test_a_flood_loses_or_mixes_keys(self):
        self.enable()
        self.viewer()
        self.orrin.tell("kvm flood keys %d" % self.FLOOD)
        letters = "abcdefghijklmnopqrstuvwxyz"
        self.assert_played(typed("".join(letters[i % 26] for i in range(self.FLOOD // 2))))

    def test_the_last_place_of_the_ring_is_taken_or_stops_it(self):
        self.enable()
        viewer = self.viewer()
        # The host waits at the last place, and so takes no old entry while the indexes are moved.
        self.orrin.tell("kvm index keyboard write 8189", "kvm index keyboard read 8188",
                        "kvm index keyboard write 8188")
        viewer.tell("key 0x61 down")
        self.orrin.saw("keyboard entry 8188")
        self.assertEqual(self.played(), [])  # the index is the last place: the host waits
        viewer.tell("key 0x61 up")
        self.assert_played(typed("a"))
        viewer.tell("type b")
        self.assert_played(typed("ab"))

    def test_a_stalled_firmware_loses_what_was_said_meanwhile(self):
        self.enable()
        viewer = self.viewer()
        self.orrin.tell("kvm stall on")
        viewer.type("refresh")
        viewer.type("type k")
        self.orrin.tell("kvm paint 99", "kvm stall off")
        self.assertTrue(viewer.answers() and viewer.answers())
        self.assert_played(typed("k"))

    def test_a_viewer_that_stops_reading_holds_the_service(self):
        self.enable()
        viewer = self.viewer()
        viewer.tell("gorge 2000")
        for counter in range(400):
            if "socket write crossed 100 attempts" in self.log():
                break
            self.orrin.tell("kvm paint %d" % counter)
            viewer.tell("gorge 20") if viewer.is_running else None
        self.logged("socket write crossed 100 attempts")
        self.ended()
        viewer.leave()
        self.enable_again()
        self.assertEqual(capture(self.path("shot.png")), self.painted())


if __name__ == "__main__":
    run()
