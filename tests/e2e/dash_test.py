"""DASH over the relay, seen by clients that know nothing of it: curl, openssl s_client, Python's
TLS, and bare sockets where the relay itself is what matters."""
import hashlib
import json
import os
import platform
import re
import socket
import ssl
import struct
import subprocess
import unittest
import xml.etree.ElementTree as ElementTree

from stewardry_lab import (ADAPTER, BOUND, HOST, PATIENCE, PORT, LabTest, connect, curl,
                           curl_process, is_dropped, knock_is_dropped, receive, run)

IDENTITY = "http://schemas.dmtf.org/wbem/wsman/identity/1/wsmanidentity.xsd"
IDENTIFY = ('<s:Envelope xmlns:s="http://www.w3.org/2003/05/soap-envelope" xmlns:w="%s"><s:Header/>'
            "<s:Body><w:Identify/></s:Body></s:Envelope>" % IDENTITY).encode()
ANNOUNCED = "announces a DASH connection to port 664"
ENDED = "the DASH connection has ended, port (664)"
REQUEST = b"GET / HTTP/1.1\r\nHost: orrin\r\nConnection: close\r\n\r\n"


def identify():
    envelope = ElementTree.fromstring(curl("/wsman", data=IDENTIFY))
    return {name: envelope.findtext(".//{%s}%s" % (IDENTITY, name))
            for name in ("ProtocolVersion", "ProductVendor", "ProductVersion")}


class Dash(LabTest):
    def test_identify_isnt_the_firmwares_own(self):
        self.start_both("version 7.1-e2e")
        self.assertEqual(identify(), {
            "ProtocolVersion": "http://schemas.dmtf.org/wbem/wsman/1/wsman.xsd",
            "ProductVendor": "Corvane", "ProductVersion": "7.1-e2e"})

    def test_inventory_differs_from_the_host(self):
        self.start_both()
        told = json.loads(curl("/"))
        release = platform.freedesktop_os_release()["PRETTY_NAME"]
        expected = {
            "os": {"caption": release, "architecture": "64-bit", "version": os.uname().release,
                   "hostName": socket.gethostname(), "osType": 36},
            "network": {"name": ADAPTER["name"], "macAddress": ADAPTER["mac"], "connected": True,
                        "addressOrigin": 3},
            "ip": {"address": ADAPTER["address"], "subnetMask": ADAPTER["mask"],
                   "gateway": ADAPTER["gateway"], "port": 623},
        }
        for record, fields in expected.items():
            self.assertEqual({name: told[record][name] for name in fields}, fields)
        self.assertEqual(told["ip"]["macAddress"].upper(), ADAPTER["mac"])
        self.assertEqual([told["serviceStatus"], told["networkStatus"], told["serviceVersion"]],
                         [1, 1, "1.0.0.533"])
        self.orrin.saw_all([
            "GetOrrinStatus", "WriteTavrinStatus: the service is up (1)", "WriteOsInfo",
            "GetTavrinVersion", "SendIPCompleteInfomartion: report", "SendSystemBooted",
            "WriteNwInfo", ANNOUNCED])

    def test_bodies_are_torn_or_mixed(self):
        self.start_both()
        for size in (1, 131071, 1 << 20, 1 << 20, (1 << 20) + 1):
            body = os.urandom(size)
            echoed = curl("/echo", data=body)
            self.assertEqual(hashlib.sha256(echoed).digest(), hashlib.sha256(body).digest())
        # One connection, several requests.
        body = os.urandom(1 << 20)
        target = "https://%s:%d/echo" % (HOST, PORT)
        before = self.orrin.text().count(ANNOUNCED)
        self.assertEqual(curl("/echo", target, target, data=body), body * 3)
        self.assertEqual(self.orrin.text().count(ANNOUNCED) - before, 1)

    def test_a_peer_of_single_bytes_isnt_served(self):
        self.start_both()
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
        incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        tls = context.wrap_bio(incoming, outgoing)
        peer = connect()
        slow = 50  # so many bytes wait until the one before has crossed the mailbox
        sent = 0

        def drip():
            nonlocal sent
            for byte in outgoing.read():
                peer.sendall(bytes([byte]))
                sent += 1
                if sent <= slow:
                    self.logged(" read size 1 <", sent)

        def patiently(step, *words):
            while True:
                try:
                    return step(*words)
                except ssl.SSLWantReadError:
                    drip()
                    incoming.write(peer.recv(65536))

        patiently(tls.do_handshake)
        patiently(tls.write, REQUEST)
        drip()
        answer = b""
        while b'"reports"' not in answer:
            answer += patiently(tls.read, 65536)
        peer.close()
        self.assertTrue(answer.startswith(b"HTTP/1.1 200"))
        sizes = re.findall(r"\] {2}read size (\d+) <", self.log())
        self.assertEqual(sum(map(int, sizes)), sent)

    def test_openssl_is_refused_or_old_tls_isnt(self):
        self.start_both()
        for option, spoken in (("-tls1_3", "TLSv1.3"), ("-tls1_2", "TLSv1.2"), ("-tls1_1", None)):
            with self.subTest(option):
                done = subprocess.run(
                    ["openssl", "s_client", "-connect", "%s:%d" % (HOST, PORT), "-brief",
                     "-ign_eof", option], input=REQUEST, capture_output=True, timeout=PATIENCE)
                told = done.stdout + done.stderr
                if spoken is None:
                    self.assertNotEqual(done.returncode, 0)
                    self.assertNotIn(b"HTTP/1.1 200", told)
                    continue
                self.assertIn(b"Protocol version: " + spoken.encode(), told)
                self.assertRegex(told, rb"CN ?= ?orrin")
                self.assertIn(b'"serviceVersion":"1.0.0.533"', told)

    def test_ends_of_a_connection_are_lost_on_the_firmware(self):
        self.start_both()
        abort = struct.pack("ii", 1, 0)  # SO_LINGER: a close is a reset
        for name, data, linger in (("silent close", b"", None), ("silent reset", b"", abort),
                                   ("close after bytes", b"bytes", None),
                                   ("reset after bytes", b"bytes", abort)):
            with self.subTest(name):
                before = len(self.orrin.text())
                peer = connect()
                self.orrin.saw(ANNOUNCED, before)  # a peer that is reset earlier fails the accept
                if data:
                    peer.sendall(data)
                    self.orrin.saw("WriteDASHPacket: 5 bytes", before)
                if linger:
                    peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger)
                peer.close()
                end = self.orrin.saw(ENDED, before)
                story = self.orrin.text()[before:end]
                self.assertEqual(story.count(ANNOUNCED), 1)
                self.assertEqual(story.count("WriteDASHPacket"), 1 if data else 0)
        self.assertEqual(identify()["ProductVendor"], "Corvane")
        self.logged("Client closed the connection so returned false", 4)

    def test_a_second_peer_is_mixed_with_the_first(self):
        self.start_both()
        first = connect()
        first.sendall(b"first")
        before = self.orrin.saw("WriteDASHPacket: 5 bytes")
        second = connect()
        self.assertTrue(is_dropped(first))
        second.sendall(b"second")
        self.orrin.saw("WriteDASHPacket: 6 bytes", before)
        self.orrin.saw_all([
            ENDED, "from %s:%d;" % second.getsockname(), "WriteDASHPacket: 6 bytes"], before)
        self.orrin.tell("dash for the second")
        self.assertEqual(receive(second, 14), b"for the second")
        second.close()
        first.close()
        self.assert_order(self.log(), ["After sock close", "After freeing the memory",
                                       "New HTTPS DASH request arrived at Tavrin"])


class Listener(LabTest):
    def test_the_budget_of_an_unprovisioned_firmware_is_miscounted(self):
        self.start_both("provision off")
        for count in range(1, 21):
            self.assertTrue(knock_is_dropped())
            if count < 20:
                self.logged(BOUND, count + 1)
        self.assertEqual(self.service.exit_code(), 0)
        log = self.log()
        # One line for each bind's own call of the guard, one for each knock.
        self.assertEqual(
            log.count("Provisioning not done. Incoming HTTPS connection dropped."), 40)
        self.assertEqual(log.count(BOUND), 20)
        self.assertEqual(log.count("Should not reach here. Distroy selector and rebind."), 20)
        self.assertNotIn("accept calling", log)
        self.assertNotIn(ANNOUNCED, self.orrin.text())

    def test_a_taken_port_is_tried_for_ever(self):
        self.orrin = self.start_orrin()
        with socket.create_server((HOST, PORT), reuse_port=False):
            service = self.start_service(ready=None)
            self.assertEqual(service.exit_code(), 0)
        log = self.log()
        for line in ("Checking <", "Sock create failed for 664", "HTTPS binding failed",
                     "After HTTPS port binding, proceed to selector run", "Selector run failed",
                     "Should not reach here. Distroy selector and rebind."):
            self.assertEqual(log.count(line), 20, line)
        self.assertNotIn(BOUND, log)

    def test_the_status_byte_is_passed_over(self):
        self.start_both("status 0")
        self.assertTrue(knock_is_dropped())
        self.logged("ORRIN Status return failed")
        self.logged(BOUND, 2)
        self.assertNotIn(ANNOUNCED, self.orrin.text())
        before = self.orrin.tell("status 2")
        self.assertEqual(json.loads(curl("/"))["reports"]["os"], 2)
        self.logged("ORRIN is down pass nonDASH commands")
        self.orrin.saw_all([
            "GetOrrinStatus", "WriteTavrinStatus", "WriteNwInfo", ANNOUNCED], before)
        self.orrin.tell("status 1")
        self.assertEqual(json.loads(curl("/"))["reports"]["os"], 2)


class Firmware(LabTest):
    def test_a_silent_firmware_loses_a_request(self):
        self.start_both("silence WriteDASHPacket on")
        waiting = curl_process("/wsman", data=IDENTIFY)
        waiting.stdin.write(IDENTIFY)
        waiting.stdin.close()
        self.orrin.saw("is held unanswered")
        late = connect()  # the backlog takes it; nobody accepts it while the request hangs
        self.orrin.tell("unknown 0x14")  # the reader isn't held up by the request
        self.logged("Unknown Command received 0x14")
        self.assertEqual(self.orrin.text().count(ANNOUNCED), 1)
        late.close()
        self.orrin.tell("silence off")
        self.orrin.saw("TLS handshake (ClientHello)")
        self.orrin.saw(ENDED)  # the late one has taken the place of the first
        waiting.stdout.close()
        waiting.stderr.close()
        waiting.wait(PATIENCE)
        self.assertEqual(identify()["ProductVendor"], "Corvane")

    def test_a_held_request_isnt_finished_by_its_release(self):
        self.start_both("silence WriteDASHPacket on")
        waiting = curl_process("/", "--fail")
        self.orrin.saw("is held unanswered")
        self.orrin.tell("silence WriteDASHPacket off")
        body, _ = waiting.communicate(timeout=PATIENCE)
        self.assertEqual(waiting.returncode, 0)
        self.assertEqual(json.loads(body)["serviceStatus"], 1)

    def test_a_failed_request_ends_more_than_itself(self):
        self.start_both()
        failure = "GetOverlappedResult failed for %s with error: 31"
        for name in ("SendIPCompleteInfomartion", "WriteDASHPacket", "SendCloseSocketcmd"):
            with self.subTest(name):
                before = self.orrin.tell("fail %s 31 1" % name)
                peer = connect()
                peer.sendall(b"lost?")
                self.orrin.saw("WriteDASHPacket: 5 bytes", before)
                peer.sendall(b"more")
                self.orrin.saw("WriteDASHPacket: 4 bytes", before)
                peer.close()
                self.orrin.saw(ENDED, before)
                self.logged(failure % name)
        before = self.orrin.tell("fail GetOrrinStatus 31 1")
        self.assertTrue(knock_is_dropped())
        self.logged("ORRIN Status return failed")
        self.logged(BOUND, 2)
        self.assertEqual(identify()["ProductVendor"], "Corvane")

    def test_frames_at_the_bounds_are_mishandled(self):
        self.start_both()
        self.orrin.tell("dash nobody is there")
        self.logged("Socket is closed")
        peer = connect()
        self.orrin.saw(ANNOUNCED)
        self.logged("Exiting HTTPS Callback")  # the add's own call: the connection is served
        payload = bytes(range(256)) * 512
        for name, frame in (("no bytes", b""), ("one byte", b"\x08"), ("no payload", b"\x08\0"),
                            ("unknown code", b"\x14\0"), ("last byte", b"odd\x08\xff"),
                            ("the longest", payload[:131070] + b"\x08\0")):
            with self.subTest(name):
                self.orrin.tell("frame " + frame.hex())
                self.assertEqual(receive(peer, max(len(frame) - 2, 0)), frame[:-2])
        self.logged("Unknown Command received 0x14")
        self.logged(" Size written is 131070,requested 131070")
        self.assertEqual(self.log().count("Unknown Command received"), 1)
        peer.close()


if __name__ == "__main__":
    run()
