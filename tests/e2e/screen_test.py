"""orrin's screen on a direct wire: viewers that nobody here wrote, and a mailbox end of the test's
own in the place of the service. What they see and what lies in the rings is orrin's alone."""
import contextlib
import os
import socket
import struct
import threading

from stewardry_lab import HOST, PATIENCE, LabTest, run, until
from vnc import VNC_PORT, Viewer, capture, pixels

HEAD = struct.Struct("<IIQII")
MAGIC = 0x4B4E4C4F
REQUEST, MEMORY, COMPLETE, FRAME, POKE, PEEK = 3, 6, 17, 18, 20, 21
WRITE_KVM, SEND_IP, CLOSE_SOCKET, POINTERS = 0x9C41A43D, 0x9C41A430, 0x9C41A434, 0x9C416450
KEYBOARD, MOUSE = (0, 8190, "<I"), (32768, 2730, "<III")


class Joiner:
    """A mailbox end for one viewer at a time: the viewer's bytes become requests, frames become the
    viewer's bytes, and region 0 is a bytearray."""

    def __init__(self, path):
        self.region = bytearray(65536)
        self.link = socket.socket(socket.AF_UNIX)
        self.link.connect(path)
        self.lock = threading.Lock()
        self.commands = []
        self.peer = socket.socket()  # nobody yet
        self.peer.close()
        self.listener = socket.create_server((HOST, VNC_PORT))
        self.send(1, 1, 1)
        self.send(1, 2, 0)
        self.request(POINTERS, b"", 16)
        self.threads = [threading.Thread(target=work, daemon=True)
                        for work in (self.from_viewers, self.from_firmware)]
        for thread in self.threads:
            thread.start()

    def send(self, kind, number, word, body=b""):
        with self.lock:
            self.link.sendall(HEAD.pack(MAGIC, kind, number, word, len(body)) + body)

    def request(self, code, data, room=0):
        self.send(REQUEST, 9, code, struct.pack("<I", room) + data)

    def from_viewers(self):
        while True:
            try:
                peer, address = self.listener.accept()
            except OSError:
                return
            with peer:
                self.peer = peer
                record = struct.pack("<4xI12x4sI6xH", VNC_PORT, socket.inet_aton(address[0]),
                                     socket.htons(address[1]), 0xFFFF)
                self.request(SEND_IP, record)
                self.pass_on(peer)
                self.request(CLOSE_SOCKET, struct.pack("<H", VNC_PORT))

    def pass_on(self, peer):
        try:
            while data := peer.recv(65536):
                self.request(WRITE_KVM, data)
        except ConnectionResetError:
            pass

    def from_firmware(self):
        with self.link.makefile("rb") as stream:
            self.read_messages(stream)

    def read_messages(self, stream):
        while head := stream.read(HEAD.size):
            _, kind, number, word, length = HEAD.unpack(head)
            body = stream.read(length)
            if kind == POKE and number == 0:
                self.region[word:word + length] = body
            elif kind == PEEK:
                count = struct.unpack("<I", body)[0]
                self.send(MEMORY, number, word, bytes(self.region[word:word + count]))
            elif kind == FRAME and body[-2] == 9:
                with contextlib.suppress(OSError):  # the viewer may have gone
                    self.peer.sendall(body[:-2])
            elif kind == FRAME:
                self.commands.append(body[-2])
                if body[-2] == 0x23:
                    self.peer.shutdown(socket.SHUT_WR)

    def indexes(self, ring):
        return struct.unpack_from("<II", self.region, ring[0])

    def take(self, ring):
        """The entries that the firmware has shown since."""
        base, count, form = ring
        write, read = self.indexes(ring)
        entries = []
        while read != write:
            entries.append(struct.unpack_from(form, self.region,
                                              base + 8 + struct.calcsize(form) * read))
            read = (read + 1) % count
        struct.pack_into("<I", self.region, base + 4, read)
        return entries

    def close(self):
        for end, thread in zip((self.listener, self.link), self.threads):
            end.shutdown(socket.SHUT_RDWR)
            with contextlib.suppress(OSError):
                self.peer.shutdown(socket.SHUT_RDWR)
            thread.join(PATIENCE)
            end.close()


class Screen(LabTest):
    def connect(self):
        self.orrin = self.start_orrin()
        self.joiner = Joiner(self.path("mailbox", "mailbox0"))
        self.addCleanup(self.joiner.close)
        self.orrin.saw("InitializeKeyboardMousePointers")

    def painted(self):
        path = self.path("painted.ppm")
        self.orrin.tell("kvm save " + path)
        return pixels(path)

    def test_a_foreign_viewer_sees_other_pixels_than_were_painted(self):
        self.connect()
        seen = set()
        for counter in (0, 1, 0xABCDEF):
            self.orrin.tell("kvm paint %d" % counter)
            shot = capture(self.path("shot-%d.png" % counter))
            self.assertEqual(shot, self.painted())
            seen.add(shot)
        self.assertEqual(len(seen), 3)
        self.orrin.saw("KVM: session ended")

    def test_a_second_library_sees_changes_as_they_come(self):
        self.connect()
        viewer = self.viewer()
        for step in ("kvm paint 5", "kvm paint"):
            self.orrin.tell(step)
            viewer.tell("changed", "save " + self.path("seen.ppm"))
            self.assertEqual(pixels(self.path("seen.ppm")), self.painted())

    def test_events_in_the_rings_differ_from_those_sent(self):
        self.connect()
        viewer = self.viewer()
        viewer.tell("type Aé€", "key 0xffe3 down", "key 0xffe3 up", "pointer 1 10 20",
                    "pointer 0 319 199")
        until(lambda: self.joiner.indexes(MOUSE)[0] == 2, "the last pointer event")
        keys = [entry for key in (0x41, 0xE9, 0x20AC, 0xFFE3) for entry in
                ((0x80000000 | key,), (key,))]
        self.assertEqual(self.joiner.take(KEYBOARD), keys)
        self.assertEqual(self.joiner.take(MOUSE), [(1, 10, 20), (0, 319, 199)])

    def test_a_flood_beyond_the_ring_loses_or_mixes_entries(self):
        self.connect()
        self.orrin.tell("kvm flood keys 30000", "kvm flood pointer 9000")
        keys, pointer = [], []

        def all_taken():
            for ring, entries in ((KEYBOARD, keys), (MOUSE, pointer)):
                if self.joiner.indexes(ring)[0] < ring[1] - 1:
                    entries += self.joiner.take(ring)
            return len(keys) >= 30000 and len(pointer) >= 9000

        until(all_taken, "the flood")
        self.assertEqual(keys, [((0 if i % 2 else 0x80000000) | 97 + i // 2 % 26,)
                                for i in range(30000)])
        self.assertEqual(pointer, [(0, i % 320, i // 320) for i in range(9000)])

    def test_a_stalled_screen_goes_on_where_it_stood(self):
        self.connect()
        viewer = self.viewer()
        self.orrin.tell("kvm stall on")
        viewer.type("refresh")
        self.orrin.tell("kvm paint 77", "kvm stall off")
        viewer.answers()
        viewer.tell("save " + self.path("seen.ppm"))
        self.assertEqual(pixels(self.path("seen.ppm")), self.painted())

    def test_a_stranger_keeps_the_port(self):
        self.connect()
        for words in (b"GET / HTTP/1.1\r\n\r\n", b"RFB 003.008\n\x02", os.urandom(4096),
                      b"RFB 003.008\n\x01\x01\xff"):
            with socket.create_connection((HOST, VNC_PORT), PATIENCE) as peer:
                peer.sendall(words)
                while peer.recv(65536):
                    pass
        until(lambda: self.joiner.commands == [0x23] * 4, "four closes")
        self.assertEqual(capture(self.path("shot.png")), self.painted())

    def viewer(self):
        viewer = Viewer(self)
        self.processes.append(viewer)
        viewer.tell("connect %s %d" % (HOST, VNC_PORT))
        return viewer


if __name__ == "__main__":
    run()
