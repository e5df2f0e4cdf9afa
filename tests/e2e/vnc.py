"""Two independent viewers: gvnccapture (gtk-vnc) saves one picture, and vnc_viewer passes commands
to libvncclient."""
import ctypes
import subprocess

from stewardry_lab import HOST, PATIENCE, Process, until

VNC_PORT = 22
_FIRST_DISPLAY = 5900  # gvnccapture adds it to the display number
_GDK = ctypes.CDLL("libgdk_pixbuf-2.0.so.0")  # a dependency of gvnccapture
for _name in ("new_from_file", "add_alpha", "get_pixels"):
    getattr(_GDK, "gdk_pixbuf_" + _name).restype = ctypes.c_void_p


def pixels(path):
    """Returns the size and the RGBA bytes of a picture file."""
    read = ctypes.c_void_p(_GDK.gdk_pixbuf_new_from_file(path.encode(), None))
    picture = ctypes.c_void_p(_GDK.gdk_pixbuf_add_alpha(read, False, 0, 0, 0))
    width, height = _GDK.gdk_pixbuf_get_width(picture), _GDK.gdk_pixbuf_get_height(picture)
    return (width, height), ctypes.string_at(_GDK.gdk_pixbuf_get_pixels(picture),
                                             width * height * 4)


def capture(path):
    """Returns the picture that gvnccapture saves to `path` as a PNG."""
    subprocess.run(["gvnccapture", "%s:%d" % (HOST, VNC_PORT - _FIRST_DISPLAY), path], check=True,
                   timeout=PATIENCE * 2, capture_output=True)
    return pixels(path)


class Viewer(Process):
    """A vnc_viewer. It answers each command with one line."""

    def __init__(self, lab):
        super().__init__(lab, "viewer-%d" % len(lab.processes), "vnc_viewer")
        self.answered = 0

    def try_execute(self, command):
        """Returns whether the viewer has executed the command."""
        self.child.stdin.write((command + "\n").encode())
        self.child.stdin.flush()
        self.answered += 1
        until(lambda: self.text().count("\n") >= self.answered or not self.is_running,
              "the viewer's answer")
        return self.text().splitlines()[self.answered - 1] == "done"

    def execute(self, *commands):
        for command in commands:
            assert self.try_execute(command), "the viewer could not execute " + command

    def leave(self):
        """Closes the connection and ends."""
        self.child.stdin.close()
        self.exit_code()
