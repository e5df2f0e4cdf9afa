# An HTTP server that keeps what is posted to it: the listener of a subscription.
import http.server
import queue
import threading

from stewardry_lab import HOST


class Handler(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"])).decode()
        self.server.posts.put((self.path, self.request_version, self.headers.items(), body))
        self.send_response(204)
        self.end_headers()

    log_message = lambda *_: None  # noqa: E731


class Listener(http.server.ThreadingHTTPServer):
    handle_error = lambda *_: None  # noqa: E731  the service does not wait for the answer

    def __init__(self, test, context=None):
        super().__init__((HOST, 0), Handler)
        if context:
            self.socket = context.wrap_socket(self.socket, server_side=True)
        self.posts = queue.Queue()
        self.port = self.server_address[1]
        threading.Thread(target=self.serve_forever, args=(0.02,), daemon=True).start()
        test.addCleanup(self.server_close)
        test.addCleanup(self.shutdown)
