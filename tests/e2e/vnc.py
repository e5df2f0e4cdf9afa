"""Viewers that nobody here wrote: gvnccapture (gtk-vnc), which fetches one picture, and vnc_viewer,
which is a few commands over libvncclient."""
import socket
import struct
import subprocess
import zlib

from stewardry_lab import HOST, PATIENCE, Process, until

VNC_PORT = 22
_FIRST_DISPLAY = 5900  # port 22 as a display number that gvnccapture takes


def pixels(path):
    """The size and the RGB bytes of a PPM (P6) or of a PNG with 8-bit RGB or RGBA pixels."""
    with open(path, "rb") as file:
        data = file.read()
    if data.startswith(b"P6"):
        _, width, height, _ = data.split(maxsplit=4)[:4]
        rgb = data[-int(width) * int(height) * 3:]
        return (int(width), int(height)), rgb
    return _png(data)


def _png(data):
    parts, at = b"", 8
    while at < len(data):
        length, kind = struct.unpack_from(">I4s", data, at)
        body = data[at + 8:at + 8 + length]
        if kind == b"IHDR":
            width, height, bits, colour, _, _, interlace = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            parts += body
        at += length + 12
    if bits != 8 or colour not in (2, 6) or interlace:
        raise ValueError("a PNG of another kind")
    size = 3 if colour == 2 else 4
    rows = _unfiltered(zlib.decompress(parts), width * size, size)
    rgb = b"".join(bytes(row[i] for i in range(len(row)) if i % size < 3) for row in rows)
    return (width, height), rgb


def _unfiltered(raw, stride, size):
    """The rows of a PNG (its standard's section 9: none, sub, up, average, Paeth)."""
    above = bytes(stride)
    for start in range(0, len(raw), stride + 1):
        kind, row = raw[start], bytearray(raw[start + 1:start + 1 + stride])
        for i in range(stride):
            left, corner = (row[i - size], above[i - size]) if i >= size else (0, 0)
            row[i] = row[i] + _predicted(kind, left, above[i], corner) & 255
        yield row
        above = row


def _predicted(kind, left, up, corner):
    if kind == 4:
        return min((left, up, corner), key=lambda value: abs(left + up - corner - value))
    return (0, left, up, (left + up) // 2)[kind]


def capture(path):
    """What gvnccapture sees, saved as `path` too (a PNG)."""
    subprocess.run(["gvnccapture", "%s:%d" % (HOST, VNC_PORT - _FIRST_DISPLAY), path], check=True,
                   timeout=PATIENCE * 2, capture_output=True)
    return pixels(path)


def is_refused():
    """Whether a connection to the port is closed before the firmware's first byte."""
    try:
        with socket.create_connection((HOST, VNC_PORT), PATIENCE) as peer:
            return not peer.recv(1)
    except ConnectionResetError:
        return True


class Viewer(Process):
    """A vnc_viewer; each command waits for its answer."""

    def __init__(self, lab, name="viewer"):
        super().__init__(lab, "%s-%d" % (name, len(lab.processes)), "vnc_viewer")
        self.answered = 0

    def type(self, command):
        self.child.stdin.write((command + "\n").encode())
        self.child.stdin.flush()

    def answers(self):
        """The answer to the oldest command that has none yet: whether it was done."""
        until(lambda: len(self.text().splitlines()) > self.answered or not self.is_running,
              "the viewer's answer")
        self.answered += 1
        return self.text().splitlines()[self.answered - 1] == "done"

    def try_(self, command):
        self.type(command)
        return self.answers()

    def tell(self, *commands):
        for command in commands:
            if not self.try_(command):
                raise AssertionError("the viewer couldn't " + command)

    def leave(self):
        """Closes its connection and ends."""
        self.child.stdin.close()
        self.exit_code()

    def end(self, *words):
        if not self.child.stdin.closed:
            return super().end(*words)
        return self.exit_code()
