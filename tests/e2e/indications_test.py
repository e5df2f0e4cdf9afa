"""Indications: what the firmware has to tell reaches a listener that nobody here wrote, Python's
HTTP server, plain and behind TLS with a certificate that nobody should trust."""
import http.server
import os
import queue
import socket
import ssl
import subprocess
import threading
import unittest

from stewardry_lab import HOST, LabTest, run

POSTING = "Posting Indication Alert"
EVENT = '<?xml version="1.0"?><s:Envelope>fan 2 stands still, 71 °C</s:Envelope>'


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        self.server.posts.put((self.path, self.request_version, self.headers.items(), body))
        self.send_response(204)
        self.end_headers()
        self.close_connection = True

    def log_message(self, *_):
        pass


class Listener(http.server.ThreadingHTTPServer):
    def __init__(self, test, context=None):
        super().__init__((HOST, 0), Handler)
        if context:
            self.socket = context.wrap_socket(self.socket, server_side=True)
        self.posts = queue.Queue()
        self.port = self.server_address[1]
        thread = threading.Thread(target=self.serve_forever, args=(0.02,))
        thread.start()
        test.addCleanup(self.server_close)
        test.addCleanup(thread.join)
        test.addCleanup(self.shutdown)

    def handle_error(self, request, client_address):
        pass  # the service doesn't wait for the answer


def untrusted(test):
    """TLS with a certificate of another host, signed by itself, whose day has passed."""
    key, request, certificate = map(test.path, ("key.pem", "request.pem", "cert.pem"))
    for words in (["req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=elsewhere.example",
                   "-keyout", key, "-out", request],
                  ["x509", "-req", "-in", request, "-signkey", key, "-days", "-1",
                   "-out", certificate]):
        subprocess.run(["openssl", *words], check=True, capture_output=True)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate, key)
    return context


class Subscribed(LabTest):
    def subscribe(self, port, path="/events", scheme="http", host=HOST):
        count = self.log().count("so subscribing to")
        self.orrin.tell("subscribe %s %d %s %s" % (host, port, path, scheme))
        self.logged("so subscribing to " + host, count + 1)

    def send(self, text, line=POSTING):
        count = self.log().count(line)
        self.orrin.tell("indication " + text)
        self.logged(line, count + 1)

    def assert_posted(self, listener, path, text):
        target, version, headers, body = listener.posts.get(timeout=30)
        self.assertEqual((target, version), (path, "HTTP/1.1"))
        self.assertEqual(body.decode(), text)
        given = {"Host": "%s:%d" % (HOST, listener.port), "Accept": "*/*",
                 "Content-Type": "application/soap+xml;charset=UTF-8",
                 "Content-Length": str(len(body)), "User-Agent": "WinHTTP Example/1.0"}
        for name, value in given.items():
            self.assertEqual([v for n, v in headers if n.lower() == name.lower()], [value], name)
        self.assertLessEqual({name for name, _ in headers} - set(given),
                             {"Connection"})  # the layer's own


class Indications(Subscribed):
    def test_an_event_reaches_its_listener_altered_or_not_at_all(self):
        self.start_both()
        self.send(EVENT, "Not Posting Indication Alert")  # nobody has subscribed
        for scheme, context in (("http", None), ("https", untrusted(self))):
            with self.subTest(scheme):
                listener = Listener(self, context)
                self.subscribe(listener.port, "/events/of?a=1&b=2", scheme)
                for text in (EVENT, "x" * 4095, "y"):
                    self.send(text)
                    self.assert_posted(listener, "/events/of?a=1&b=2", text)
        self.send("z" * 4096, "the event is longer than 4095 bytes")
        self.orrin.tell("unsubscribe")
        self.logged("Send size is 2060, so unsubscribing")
        self.send(EVENT, "Not Posting Indication Alert")
        self.assertTrue(listener.posts.empty())

    def test_a_new_listener_shares_with_the_old_one(self):
        self.start_both()
        old, new = Listener(self), Listener(self)
        self.subscribe(old.port)
        self.subscribe(new.port, "elsewhere")
        self.send(EVENT)
        self.assert_posted(new, "/elsewhere", EVENT)
        self.assertTrue(old.posts.empty())

    def test_a_listener_that_never_answers_holds_the_service(self):
        self.start_both()
        with socket.create_server((HOST, 0)) as server:
            self.subscribe(server.getsockname()[1])
            self.send(EVENT)
            self.send(EVENT)

    def test_a_listener_that_fails_ends_the_service(self):
        self.start_both()
        with socket.create_server((HOST, 0)) as server:
            self.subscribe(server.getsockname()[1], scheme="https")
            for linger in (b"\0\0\0\0\0\0\0\0", b"\1\0\0\0\0\0\0\0"):  # an end, a reset
                self.orrin.tell("indication " + EVENT)
                peer, _ = server.accept()
                peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger)
                peer.close()
            closed = server.getsockname()[1]
        self.subscribe(closed)
        self.send(EVENT)  # refused
        listener = Listener(self)
        self.subscribe(listener.port)
        self.send(EVENT)
        self.assert_posted(listener, "/events", EVENT)


class Proxies(Subscribed):
    def test_a_proxy_is_passed_by_or_asked_for_another_place(self):
        proxy = Listener(self)
        os.environ["http_proxy"] = "http://%s:%d" % (HOST, proxy.port)
        self.addCleanup(os.environ.pop, "http_proxy")
        self.start_both()
        self.subscribe(8080, "/a%20b/../c#d", host="console.example")
        self.send(EVENT)
        target, _, headers, body = proxy.posts.get(timeout=30)
        self.assertEqual(target, "http://console.example:8080/a%20b/../c%23d")
        self.assertEqual(dict(headers)["Host"], "console.example:8080")
        self.assertEqual(body.decode(), EVENT)


if __name__ == "__main__":
    run()
