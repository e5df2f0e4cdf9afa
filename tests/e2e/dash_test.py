# DASH over the relay: curl as the client, and bare sockets where the relay itself is tested.
import json
import os
import platform
import socket
import struct

from stewardry_lab import (ADAPTER, BOUND, HOST, PORT, LabTest, connect, connection_is_dropped,
                           curl, receive, run)

ANNOUNCED = "announces a DASH connection to port 664"
ENDED = "the DASH connection has ended, port (664)"


class Dash(LabTest):
    def test_inventory_describes_the_host(self):
        self.start_both()
        inventory = json.loads(curl("/"))
        expected = {
            "os": {"caption": platform.freedesktop_os_release()["PRETTY_NAME"],
                   "architecture": "64-bit", "version": os.uname().release,
                   "hostName": socket.gethostname(), "osType": 36},
            "network": {"name": ADAPTER["name"], "macAddress": ADAPTER["mac"], "connected": True,
                        "addressOrigin": 3},
            "ip": {"address": ADAPTER["address"], "subnetMask": ADAPTER["mask"],
                   "gateway": ADAPTER["gateway"], "macAddress": ADAPTER["mac"].lower(),
                   "port": 623},
        }
        for record, fields in expected.items():
            self.assertLessEqual(fields.items(), inventory[record].items())
        self.assertEqual(inventory["serviceVersion"], "1.0.0.533")
        self.orrin.saw_all([
            "GetOrrinStatus", "WriteTavrinStatus: the service is up (1)", "WriteOsInfo",
            "GetTavrinVersion", "SendIPCompleteInfomartion: report", "SendSystemBooted",
            "WriteNwInfo", ANNOUNCED])

    def test_bodies_of_any_size_cross_unchanged_on_one_connection(self):
        self.start_both()
        target = "https://%s:%d/echo" % (HOST, PORT)
        for size in (1, 131071, (1 << 20) + 1):
            body = os.urandom(size)
            self.assertTrue(curl("/echo", target, data=body) == body * 2, size)
        self.assertEqual(self.orrin.text().count(ANNOUNCED), 3)

    def test_each_end_of_a_connection_reaches_the_firmware(self):
        self.start_both()
        for data, abort in ((b"", 0), (b"", 1), (b"bytes", 0), (b"bytes", 1)):
            with self.subTest((data, abort)):
                before = self.orrin.here()
                with connect() as peer:
                    self.orrin.saw(ANNOUNCED, before)  # an earlier reset makes the accept fail
                    if data:
                        peer.sendall(data)
                        self.orrin.saw("WriteDASHPacket: 5 bytes", before)
                    peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                    struct.pack("ii", abort, 0))
                self.orrin.saw(ENDED, before)
        self.assertEqual(self.orrin.text().count(ANNOUNCED), 4)
        self.assertEqual(self.orrin.text().count("WriteDASHPacket"), 2)
        curl("/")
        self.logged("Client closed the connection so returned false", 4)


class Listener(LabTest):
    def test_an_unprovisioned_firmware_ends_the_service_after_twenty_connections(self):
        self.start_both("provision off")
        for count in range(2, 22):
            self.assertTrue(connection_is_dropped())
            if count < 21:
                self.logged(BOUND, count)
        self.assertEqual(self.service.exit_code(), 0)
        # One line for each bind's own call of the guard, one for each connection.
        for line, count in (("Provisioning not done. Incoming HTTPS connection dropped.", 40),
                            (BOUND, 20), ("accept calling", 0),
                            ("Should not reach here. Distroy selector and rebind.", 20)):
            self.assertEqual(self.log().count(line), count, line)
        self.assertEqual(self.read(self.path("eventlog.txt")).count("type=2 id=0x80020013"), 1)

    def test_a_port_in_use_is_tried_twenty_times(self):
        self.orrin = self.start_orrin()
        with socket.create_server((HOST, PORT), reuse_port=False):
            self.assertEqual(self.start_service(ready=None).exit_code(), 0)
        for line in ("Checking <", "Sock create failed for 664", "HTTPS binding failed",
                     "After HTTPS port binding, proceed to selector run", "Selector run failed",
                     "Should not reach here. Distroy selector and rebind."):
            self.assertEqual(self.log().count(line), 20, line)
        self.assertNotIn(BOUND, self.log())

    def test_a_firmware_that_was_down_receives_the_report_again(self):
        self.start_both("status 0")
        self.assertTrue(connection_is_dropped())
        self.logged("ORRIN Status return failed")
        self.logged(BOUND, 2)
        self.assertNotIn(ANNOUNCED, self.orrin.text())
        before = self.orrin.execute("status 2")
        self.assertEqual(json.loads(curl("/"))["reports"]["os"], 2)
        self.logged("ORRIN is down pass nonDASH commands")
        self.orrin.saw_all(["GetOrrinStatus", "WriteTavrinStatus", "WriteNwInfo", ANNOUNCED],
                           before)
        self.orrin.execute("status 1")
        self.assertEqual(json.loads(curl("/"))["reports"]["os"], 2)


class Firmware(LabTest):
    def test_a_silent_firmware_blocks_the_connection_and_not_the_reader(self):
        self.start_both("silence WriteDASHPacket on")
        with connect() as first:
            first.sendall(b"held")
            self.orrin.saw("is held unanswered")
            self.orrin.execute("unknown 0x14")
            self.logged("Unknown Command received 0x14")
            with connect():  # accepted once the request is answered; replaces the first one
                self.assertEqual(self.orrin.text().count(ANNOUNCED), 1)
                self.orrin.saw_all([ENDED, ANNOUNCED], self.orrin.execute("silence off"))
        curl("/")

    def test_a_failed_request_ends_nothing_else(self):
        self.start_both()
        for name in ("SendIPCompleteInfomartion", "WriteDASHPacket", "SendCloseSocketcmd"):
            with self.subTest(name):
                before = self.orrin.execute("fail %s 31 1" % name)
                with connect() as peer:
                    for data in (b"lost?", b"more"):
                        peer.sendall(data)
                        self.orrin.saw("WriteDASHPacket: %d bytes" % len(data), before)
                self.orrin.saw(ENDED, before)
                self.logged("GetOverlappedResult failed for %s with error: 31" % name)
        curl("/")

    def test_frames_of_every_length_reach_the_peer(self):
        self.start_both()
        self.orrin.execute("dash no peer is connected")
        self.logged("Socket is closed")
        with connect() as peer:
            self.logged("Exiting HTTPS Callback")  # at the registration: it is served
            longest = bytes(range(256)) * 511 + bytes(254)
            for frame in (b"", b"\x08", b"\x08\0", b"\x14\0", b"odd\x08\xff", longest + b"\x08\0"):
                with self.subTest(frame[-8:]):
                    self.orrin.execute("frame " + frame.hex())
                    self.assertEqual(receive(peer, max(len(frame) - 2, 0)), frame[:-2])
        self.logged(" Size written is 131070,requested 131070")
        self.assertEqual(self.log().count("Unknown Command received"), 1)


if __name__ == "__main__":
    run()
