# Indications: the firmware's events reach Python's HTTP server, plain and behind TLS with a
# certificate that no client should trust.
import socket
import ssl
import struct
import subprocess

from listener import Listener
from stewardry_lab import HOST, PATIENCE, LabTest, run

POSTING = "Posting Indication Alert"
EVENT = '<?xml version="1.0"?><s:Envelope>fan 2 stands still, 71 °C</s:Envelope>'


def untrusted(test):
    """TLS with a self-signed certificate of another host."""
    key, certificate = test.path("key.pem"), test.path("cert.pem")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes",
                    "-subj", "/CN=elsewhere.example", "-keyout", key, "-out", certificate],
                   check=True, capture_output=True)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate, key)
    return context


class Indications(LabTest):
    def do(self, command, line):
        """Makes the firmware send a command and waits for its line in the service log."""
        count = self.log().count(line)
        self.orrin.execute(command)
        self.logged(line, count + 1)

    def subscribe(self, port, path="/events", scheme="http", host=HOST):
        self.do("subscribe %s %d %s %s" % (host, port, path, scheme), "so subscribing to " + host)

    def send(self, text, line=POSTING):
        self.do("indication " + text, line)

    def assert_posted(self, listener, path, text):
        target, version, headers, body = listener.posts.get(timeout=PATIENCE)
        self.assertEqual((target, version, body), (path, "HTTP/1.1", text))
        expected = {"host": "%s:%d" % (HOST, listener.port), "accept": "*/*",
                    "content-type": "application/soap+xml;charset=UTF-8",
                    "content-length": str(len(body.encode())), "user-agent": "WinHTTP Example/1.0"}
        self.assertLessEqual(expected.items(), {(n.lower(), v) for n, v in headers})

    def test_an_event_reaches_its_listener_unchanged(self):
        self.start_both()
        self.send(EVENT, "Not Posting Indication Alert")  # there is no subscription
        for scheme, context in (("http", None), ("https", untrusted(self))):
            with self.subTest(scheme):
                listener = Listener(self, context)
                self.subscribe(listener.port, "/events/of?a=1&b=2", scheme)
                for text in (EVENT, "x" * 4095):
                    self.send(text)
                    self.assert_posted(listener, "/events/of?a=1&b=2", text)
        new = Listener(self)
        self.subscribe(new.port, "elsewhere")  # replaces the old one
        self.send(EVENT)
        self.assert_posted(new, "/elsewhere", EVENT)
        self.do("unsubscribe", "Send size is 2060, so unsubscribing")
        self.send(EVENT, "Not Posting Indication Alert")
        self.assertTrue(listener.posts.empty())

    def test_a_listener_that_never_answers_does_not_hold_the_service(self):
        self.start_both()
        with socket.create_server((HOST, 0)) as server:
            self.subscribe(server.getsockname()[1])
            self.send(EVENT)
            self.send(EVENT)

    def test_a_listener_that_fails_does_not_end_the_service(self):
        self.start_both()
        with socket.create_server((HOST, 0)) as server:
            self.subscribe(server.getsockname()[1], scheme="https")
            for abort in (0, 1):  # a close; a reset
                self.orrin.execute("indication " + EVENT)
                peer, _ = server.accept()
                peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", abort, 0))
                peer.close()
            closed = server.getsockname()[1]
        self.subscribe(closed)
        self.send(EVENT)  # refused
        listener = Listener(self)
        self.subscribe(listener.port)
        self.send(EVENT)
        self.assert_posted(listener, "/events", EVENT)


if __name__ == "__main__":
    run()
