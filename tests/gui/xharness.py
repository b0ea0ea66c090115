"""A small harness for driving the viewer as a person would: a private X server, real key and
mouse input through xdotool, screenshots through ImageMagick, and the program's console captured
the way a terminal shows it.

Every wait polls for what it waits for (a window, a text, a settled picture) up to a deadline;
every process started here is ended in its own process group.
"""

import argparse
import os
import pty
import shutil
import signal
import subprocess
import sys
import threading
import time
import tty

SKIP = 77  # ctest's SKIP_RETURN_CODE for the GUI tests
POLL = 0.05  # seconds between two looks at whatever a wait waits for
TOOLS = ("Xvfb", "xdotool", "import", "convert", "xclip")


class HarnessError(AssertionError):
    pass


def missing_tools():
    return [t for t in TOOLS if shutil.which(t) is None]


def poll(what, check, timeout):
    """Calls check() until it returns something true and returns that; fails after timeout."""
    deadline = time.monotonic() + timeout
    while True:
        result = check()
        if result:
            return result
        if time.monotonic() > deadline:
            raise HarnessError(f"timed out after {timeout:g} s waiting for {what}")
        time.sleep(POLL)


def _end_group(proc, grace=3.0):
    """Ends a process started in its own session, with everything it started."""
    if proc is None or proc.poll() is not None:
        return
    for sig in (signal.SIGTERM, signal.SIGKILL):
        try:
            os.killpg(proc.pid, sig)
        except ProcessLookupError:
            return
        try:
            proc.wait(timeout=grace)
            return
        except subprocess.TimeoutExpired:
            pass


class XServer:
    """Xvfb on the first free display from :90 up, ended by stop()."""

    def __init__(self, log_dir, width=1280, height=1024):
        self.proc = None
        self.display = None
        self.log_path = os.path.join(log_dir, "xvfb.log")
        for n in range(90, 190):
            if os.path.exists(f"/tmp/.X11-unix/X{n}") or os.path.exists(f"/tmp/.X{n}-lock"):
                continue
            with open(self.log_path, "wb") as log:
                proc = subprocess.Popen(
                    ["Xvfb", f":{n}", "-screen", "0", f"{width}x{height}x24", "-nolisten", "tcp",
                     "-noreset"],
                    stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True)
            self.proc, self.display = proc, f":{n}"
            # The server that answers must be ours: a test running beside this one may have
            # taken the same number a moment earlier, and then ours ends on the lock.
            try:
                poll(f"Xvfb on :{n}",
                     lambda: proc.poll() is not None or (self._lock_pid(n) == proc.pid
                                                         and self._answers()), 10)
            except HarnessError:
                self.stop()
                raise
            if proc.poll() is None:
                return
            # Another server took the number between our look and its start: try the next.
            self.proc = self.display = None
        raise HarnessError("no free X display between :90 and :189")

    @staticmethod
    def _lock_pid(n):
        try:
            with open(f"/tmp/.X{n}-lock") as lock:
                return int(lock.read().strip() or -1)
        except (OSError, ValueError):
            return -1

    def _answers(self):
        r = subprocess.run(["xdotool", "getmouselocation"], env=self.env(),
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return r.returncode == 0

    def env(self, extra=None):
        env = dict(os.environ)
        env.pop("WAYLAND_DISPLAY", None)
        env["DISPLAY"] = self.display
        env.update(extra or {})
        return env

    def stop(self):
        _end_group(self.proc)
        self.proc = None

    # --- xdotool and friends -----------------------------------------------------------------

    def run(self, *args, check=True, timeout=10):
        r = subprocess.run(list(args), env=self.env(), stdin=subprocess.DEVNULL,
                           capture_output=True, timeout=timeout)
        if check and r.returncode != 0:
            raise HarnessError(f"{' '.join(args)} failed ({r.returncode}): "
                               f"{r.stderr.decode(errors='replace').strip()}")
        return r.stdout.decode(errors="replace")

    def xdo(self, *args, check=True):
        return self.run("xdotool", *[str(a) for a in args], check=check)

    def visible_windows(self, pattern="."):
        """Ids of the mapped windows whose name matches pattern (xdotool's regex, any case)."""
        out = self.xdo("search", "--onlyvisible", "--name", pattern, check=False)
        return [int(w) for w in out.split()]

    def window_name(self, wid):
        return self.xdo("getwindowname", wid, check=False).rstrip("\n")

    def windows_titled(self, title):
        """Mapped windows whose title is exactly title (search --name ignores case)."""
        return [w for w in self.visible_windows() if self.window_name(w) == title]

    def wait_window(self, title, timeout=20, proc=None):
        def look():
            if proc is not None and proc.poll() is not None:
                raise HarnessError(f"the program ended (status {proc.returncode}) before a "
                                   f"window titled {title!r} appeared")
            found = self.windows_titled(title)
            return found[0] if found else None
        return poll(f"a window titled {title!r}", look, timeout)

    def wait_window_gone(self, title, timeout=10):
        poll(f"the window titled {title!r} to close", lambda: not self.windows_titled(title),
             timeout)

    def geometry(self, wid):
        """(x, y, width, height) of a window on the screen."""
        out = self.xdo("getwindowgeometry", "--shell", wid)
        v = dict(line.split("=", 1) for line in out.split() if "=" in line)
        return int(v["X"]), int(v["Y"]), int(v["WIDTH"]), int(v["HEIGHT"])

    def child_rect(self, wid, width, height):
        """(x, y) inside window wid of a mapped window without a name of the given size (a
        native child such as a GL canvas), or None. getwindowgeometry misplaces child windows,
        so the pointer is put on the child's origin and read back."""
        out = self.xdo("search", "--onlyvisible", "--name", "^$", check=False)
        for child in out.split():
            if int(child) == wid or self.geometry(child)[2:] != (width, height):
                continue
            self.xdo("mousemove", "--window", child, 0, 0)
            v = dict(f.split(":", 1) for f in self.xdo("getmouselocation").split() if ":" in f)
            wx, wy, _, _ = self.geometry(wid)
            return int(v["x"]) - wx, int(v["y"]) - wy
        return None

    def focus(self, wid, x=None, y=None):
        """Points into the window (focus follows the pointer here) and gives it the focus."""
        if x is None:
            _, _, w, h = self.geometry(wid)
            x, y = w // 2, h // 2
        self.xdo("mousemove", "--window", wid, x, y)
        self.xdo("windowfocus", "--sync", wid)

    def key(self, *keys):
        self.xdo("key", "--clearmodifiers", *keys)

    def copied_text(self, wid):
        """The text of a message box as a user copies it: Tab to the message (GTK makes it
        selectable), Ctrl+A, Ctrl+C, then the clipboard's contents."""
        self.focus(wid)
        self.key("Tab", "ctrl+a", "ctrl+c")
        return poll("the copied text", lambda: self.run("xclip", "-selection", "clipboard",
                                                         "-o", check=False), 10)

    def drag(self, wid, x0, y0, dx, dy, button=1, steps=10):
        """A drag with the given button from (x0, y0) in window wid by (dx, dy) pixels."""
        self.xdo("mousemove", "--window", wid, x0, y0)
        self.xdo("mousedown", button)
        for i in range(1, steps + 1):
            self.xdo("mousemove", "--window", wid, x0 + dx * i // steps, y0 + dy * i // steps)
            time.sleep(0.02)
        self.xdo("mouseup", button)

    # --- pictures ------------------------------------------------------------------------------

    def grab(self, wid):
        """A screenshot of the window as an Image."""
        raw = subprocess.run(["import", "-window", str(wid), "-depth", "8", "ppm:-"], env=self.env(),
                             capture_output=True, timeout=20)
        if raw.returncode != 0:
            raise HarnessError("import failed: " + raw.stderr.decode(errors="replace"))
        return Image.from_ppm(raw.stdout)


class Image:
    """An RGB picture: width, height and 3 bytes per pixel, row by row."""

    def __init__(self, width, height, data):
        self.width, self.height, self.data = width, height, data

    @staticmethod
    def from_ppm(blob):
        fields, pos = [], 0
        while len(fields) < 4:
            while blob[pos:pos + 1].isspace():
                pos += 1
            if blob[pos:pos + 1] == b"#":
                pos = blob.index(b"\n", pos)
                continue
            end = pos
            while not blob[end:end + 1].isspace():
                end += 1
            fields.append(blob[pos:end])
            pos = end
        if fields[0] != b"P6" or fields[3] != b"255":
            raise HarnessError("unexpected screenshot format")
        w, h = int(fields[1]), int(fields[2])
        return Image(w, h, blob[pos + 1:pos + 1 + 3 * w * h])

    def crop(self, x, y, w, h):
        rows = [self.data[((y + r) * self.width + x) * 3:((y + r) * self.width + x + w) * 3]
                for r in range(h)]
        return Image(w, h, b"".join(rows))

    def save_png(self, path):
        os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
        subprocess.run(["convert", "-size", f"{self.width}x{self.height}", "-depth", "8",
                        "rgb:-", path], input=self.data, check=True, timeout=20)

    def scaled(self, width, height):
        """The picture shrunk by averaging blocks of pixels: what is left is its layout, not
        the speckle of overlapping discs."""
        out = subprocess.run(["convert", "-size", f"{self.width}x{self.height}", "-depth", "8",
                              "rgb:-", "-scale", f"{width}x{height}!", "-depth", "8", "rgb:-"],
                             input=self.data, capture_output=True, check=True, timeout=20)
        return Image(width, height, out.stdout)

    def pixels(self):
        d = self.data
        return [d[i:i + 3] for i in range(0, len(d), 3)]

    def background_fraction(self):
        """Share of the pixels that have the picture's most common colour."""
        counts = {}
        for p in self.pixels():
            counts[p] = counts.get(p, 0) + 1
        return max(counts.values()) / (self.width * self.height)

    def colours(self):
        return len(set(self.pixels()))

    def mean(self):
        return sum(self.data) / len(self.data)

    def differing_fraction(self, other, tolerance=24):
        """Share of the pixels where some channel differs by more than tolerance."""
        if (self.width, self.height) != (other.width, other.height):
            return 1.0
        a, b, n = self.data, other.data, 0
        for i in range(0, len(a), 3):
            if (abs(a[i] - b[i]) > tolerance or abs(a[i + 1] - b[i + 1]) > tolerance
                    or abs(a[i + 2] - b[i + 2]) > tolerance):
                n += 1
        return n / (self.width * self.height)


class Program:
    """A program on the X server, its standard output on a terminal (so that it is read the
    moment it is written, as a user sees it) and its standard error in a file."""

    def __init__(self, xserver, args, cwd, name, preexec=None):
        self.x = xserver
        self.args = [str(a) for a in args]
        self.err_path = os.path.join(cwd, f"{name}.stderr")
        self.out_path = os.path.join(cwd, f"{name}.stdout")  # a copy, written at the end
        self._out = bytearray()
        self._lock = threading.Lock()
        master, slave = pty.openpty()
        tty.setraw(slave)  # no "\r\n" translation: the bytes exactly as written
        home = os.path.join(cwd, f"{name}.home")
        os.makedirs(home, exist_ok=True)
        env = xserver.env({"XDG_CONFIG_HOME": os.path.join(home, "config"),
                           "XDG_DATA_HOME": os.path.join(home, "data")})
        with open(self.err_path, "wb") as err:
            self.proc = subprocess.Popen(self.args, cwd=cwd, env=env, stdin=subprocess.DEVNULL,
                                         stdout=slave, stderr=err, start_new_session=True,
                                         preexec_fn=preexec)
        os.close(slave)
        self._master = master
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        while True:
            try:
                chunk = os.read(self._master, 4096)
            except OSError:  # the terminal closes with the program
                break
            if not chunk:
                break
            with self._lock:
                self._out += chunk
        os.close(self._master)

    def stdout(self):
        with self._lock:
            return self._out.decode(errors="replace")

    def stderr(self):
        with open(self.err_path, "rb") as f:
            return f.read().decode(errors="replace")

    def wait_stdout(self, expected, timeout=10):
        """Waits until everything written so far is exactly expected; fails on anything else."""
        def look():
            out = self.stdout()
            if out == expected:
                return True
            if not expected.startswith(out):
                raise HarnessError(f"standard output is {out!r}, expected {expected!r}")
            return False
        try:
            poll(f"standard output {expected!r}", look, timeout)
        except HarnessError as e:
            if "timed out" in str(e):
                raise HarnessError(f"{e}; it is {self.stdout()!r}") from None
            raise

    def wait_exit(self, timeout=15):
        try:
            status = self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            raise HarnessError(f"{' '.join(self.args)} still runs after {timeout:g} s") from None
        self._finish()
        return status

    def stop(self):
        _end_group(self.proc)
        self._finish()

    def _finish(self):
        self._reader.join(timeout=5)
        with self._lock, open(self.out_path, "wb") as f:
            f.write(self._out)


def fresh_case_dir(test, root):
    """An empty folder of the test case's own name below root."""
    path = os.path.join(root, test.id().split(".")[-1])
    shutil.rmtree(path, ignore_errors=True)
    os.makedirs(path)
    return path


def parse_test_args():
    """The arguments every GUI test program takes (the programs it drives and its scratch
    folder); the rest goes to unittest. Exits with SKIP when the X tools are not installed."""
    p = argparse.ArgumentParser()
    for name in ("--cacheview", "--synth", "--render", "--tmp"):
        p.add_argument(name, required=True)
    args, rest = p.parse_known_args()
    missing = missing_tools()
    if missing:
        print("skipped: not installed: " + ", ".join(missing))
        sys.exit(SKIP)
    return args, rest
