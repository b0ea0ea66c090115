"""The viewer driven as a person drives it: the real cacheview on a private X server, keys and
drags through xdotool, menus opened with their mnemonics, pictures taken with import.

    viewer_gui_test.py --cacheview BIN --synth BIN --render BIN --tmp DIR [unittest args]

Each process starts one X server for its test cases. With CACHEVIEW_SCREENSHOT_DIR set, the
OpenGL picture of the synthesised room is also written there as viewer.png (the README's).
"""

import os
import re
import subprocess
import sys
import time
import unittest

sys.dont_write_bytecode = True  # no cache files in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import xharness  # noqa: E402
from xharness import HarnessError, Program, XServer, poll  # noqa: E402

ARGS = None
X = None

TITLE = "Irradiance map viewer"
ABOUT = "About Irradiance map viewer"
PROPERTIES = "Irradiance map properties"
CANVAS = (800, 600)

# Position of each item in the Rendering menu's Rasterizer submenu.
OPENGL, SOFTWARE_MT, SOFTWARE = 0, 1, 2


def setUpModule():
    global X
    os.makedirs(ARGS.tmp, exist_ok=True)
    X = XServer(ARGS.tmp)


def tearDownModule():
    if X is not None:
        X.stop()


# The room as the synthesiser's first camera sees it: the view stored in the map.
EYE, TARGET, FOV = (-3.4, -2.4, 1.7), (1.2, 0.9, 0.7), 70


def synthesise(directory, name="room.lumap", count=100000):
    path = os.path.join(directory, name)
    subprocess.run([ARGS.synth, "--eye", csv(EYE), "--target", csv(TARGET), "--fov", str(FOV),
                    "--count", str(count), "--seed", "1", "--quiet", "-o", path],
                   check=True, timeout=60)
    return path


def csv(v):
    return ",".join(f"{c:.9g}" for c in v)


def offscreen(directory, map_path, name, *options):
    """The frame cacheview-render draws without a display, its picture and its report."""
    png = os.path.join(directory, name)
    report = subprocess.run([ARGS.render, *options, map_path, png], check=True,
                            capture_output=True, text=True, timeout=60).stdout
    return load_png(png), report


def load_png(path):
    ppm = subprocess.run(["convert", path, "-depth", "8", "ppm:-"], check=True,
                         capture_output=True, timeout=20).stdout
    return xharness.Image.from_ppm(ppm)


def box_middle(directory, map_path):
    """Middle of the samples' bounding box, from the points the batch tool exports."""
    pts = os.path.join(directory, "points.pts")
    subprocess.run([ARGS.cacheview, "-convert", map_path, pts], check=True,
                   capture_output=True, timeout=60)
    lo, hi = [float("inf")] * 3, [float("-inf")] * 3
    with open(pts) as f:
        for line in f:
            p = line.split()
            if len(p) >= 4 and p[0] == "v":
                for i in range(3):
                    lo[i], hi[i] = min(lo[i], float(p[i + 1])), max(hi[i], float(p[i + 1]))
    return [(a + b) / 2 for a, b in zip(lo, hi)]


class Viewer:
    """One running viewer: its main window, its canvas and its console."""

    def __init__(self, test, args, cwd, name, wrapper=(), preexec=None):
        """wrapper: a command line that runs the viewer (e.g. one that drops privileges);
        preexec: a function the viewer's process runs before it starts."""
        self.prog = Program(X, list(wrapper) + [ARGS.cacheview] + list(args), cwd, name,
                            preexec)
        test.addCleanup(self.prog.stop)

    def wait_main_window(self, title):
        self.win = X.wait_window(title, timeout=30, proc=self.prog.proc)
        at = poll("the canvas", lambda: X.child_rect(self.win, *CANVAS), 10)
        self.canvas_at = at
        # The window shows before its first frame is drawn: wait for more than a plain fill.
        poll("the first frame", lambda: len(set(self.canvas().pixels()[::97])) > 50, 30)
        return self.win

    def focus(self):
        X.focus(self.win, self.canvas_at[0] + CANVAS[0] // 2, self.canvas_at[1] + CANVAS[1] // 2)

    def canvas(self):
        return X.grab(self.win).crop(*self.canvas_at, *CANVAS)

    def settled(self, before=None, timeout=20):
        """The canvas once it has stopped changing (and, given before, once it differs from it).
        Settled means unchanged for half a second: frames drawn while the view moves may show
        part of the samples, and the whole map follows when the motion stops."""
        if before is not None:
            poll("the picture to change", lambda: self.canvas().data != before.data, timeout)
        deadline = time.monotonic() + timeout
        last, since = self.canvas(), time.monotonic()
        while True:
            time.sleep(0.1)
            now = self.canvas()
            if now.data != last.data:
                last, since = now, time.monotonic()
            elif time.monotonic() - since >= 0.5:
                return now
            if time.monotonic() > deadline:
                raise HarnessError("the picture did not settle")

    def key(self, *keys):
        self.focus()
        X.key(*keys)

    def menu(self, mnemonic, *moves):
        """Opens a menu by its mnemonic and walks it with the given keys."""
        self.focus()
        X.key(f"alt+{mnemonic}")
        for k in moves:
            X.key(k)

    def rasterizer(self, index):
        self.menu("r", "Right", *(["Down"] * index), "Return")

    def dialog(self, title):
        """Waits for a dialog by its exact title, copies its text, closes it with Return and
        waits until it is gone; returns the text."""
        d = X.wait_window(title, timeout=15, proc=self.prog.proc)
        text = X.copied_text(d)
        X.focus(d)
        X.key("Return")
        X.wait_window_gone(title)
        return text

    def exit(self):
        """Leaves through File > Exit and returns the exit status."""
        self.menu("f", "End", "Return")
        return self.prog.wait_exit(15)


def non_blank(test, img, what):
    # Seen from other sides than its camera's, a map leaves much of the picture empty.
    test.assertLess(img.background_fraction(), 0.8, f"{what}: mostly one colour")
    test.assertGreater(img.colours(), 200, f"{what}: too few colours for a lit room")


def layout_change(a, b):
    """Share of 8 x 8 blocks whose average colour differs. Discs that overlap may swap places
    from one camera position to a very near one (the speckle); the layout of the scene may not."""
    w, h = a.width // 8, a.height // 8
    return a.scaled(w, h).differing_fraction(b.scaled(w, h), 16)


def save(img, name):
    img.save_png(os.path.join(ARGS.tmp, name))


class ViewerGuiTest(unittest.TestCase):

    def setUp(self):
        self.dir = xharness.fresh_case_dir(self, ARGS.tmp)

    def test_missing_file_ends_without_a_window(self):
        """A start-up open that fails (a missing file, a folder) ends the program before any
        window is shown."""
        folder = os.path.join(self.dir, "folder.lumap")
        os.makedirs(folder, exist_ok=True)
        for name, path in (("missing", "/no/such/file.lumap"), ("folder", folder)):
            prog = Program(X, [ARGS.cacheview, path], self.dir, name)
            self.addCleanup(prog.stop)
            seen = []
            deadline = time.monotonic() + 15
            while prog.proc.poll() is None and time.monotonic() < deadline:
                seen += [X.window_name(w) for w in X.visible_windows()]
                time.sleep(0.02)
            self.assertIsNotNone(prog.proc.poll(), f"{name}: still running 15 s after")
            prog.wait_exit()
            self.assertEqual(seen, [], f"{name}: windows shown on a failed open")
            self.assertNotRegex(prog.stdout() + prog.stderr(), r"Gtk|GLib|GLX|libGL|[Ww]arning")

    def test_rasterizers_brightness_and_lod(self):
        """OpenGL and both software rasterizers through the Rasterizer menu, each with a
        picture of the room as the off-screen frame shows it; the console texts of every
        switch (none for a rasterizer already in use), of B, Shift+B, + and keypad -."""
        path = synthesise(self.dir)
        ref_gl, report = offscreen(self.dir, path, "offscreen-gl.png", "--backend", "gl")
        ref_sw, _ = offscreen(self.dir, path, "offscreen-sw.png", "--backend", "sw")
        auto_text = re.search(r"brightness ([0-9.e+-]+)", report).group(1)
        auto = float(auto_text)

        v = Viewer(self, [path], self.dir, "viewer")
        win = v.wait_main_window(f"{TITLE}: {path}")
        self.assertEqual(X.window_name(win), f"{TITLE}: {path}")

        gl = v.settled()
        save(gl, "viewer-opengl.png")
        non_blank(self, gl, "OpenGL")
        # The window opens on the view stored in the map, drawn as the off-screen frame is.
        self.assertLess(layout_change(gl, ref_gl), 0.01, "not the stored view")
        if os.environ.get("CACHEVIEW_SCREENSHOT_DIR"):  # the whole window, for the README
            X.grab(win).save_png(os.path.join(os.environ["CACHEVIEW_SCREENSHOT_DIR"],
                                              "viewer.png"))

        expected = ""
        v.rasterizer(OPENGL)  # already in use: silent
        v.rasterizer(SOFTWARE)
        expected += "Using software renderer\n"
        v.prog.wait_stdout(expected)
        sw = v.settled(gl)
        save(sw, "viewer-software.png")
        non_blank(self, sw, "software")
        self.assertLess(layout_change(sw, ref_sw), 0.01, "software: not the stored view")

        # Already on a software rasterizer: the multi-threaded one is only remembered.
        v.rasterizer(SOFTWARE_MT)
        v.rasterizer(OPENGL)
        expected += "Using OpenGL renderer\n"
        v.prog.wait_stdout(expected)
        v.rasterizer(SOFTWARE_MT)
        expected += "Using software renderer\n"
        v.prog.wait_stdout(expected)
        mt = v.settled()
        save(mt, "viewer-software-mt.png")
        non_blank(self, mt, "multi-threaded software")
        # Both software rasterizers draw the same discs in the same places.
        self.assertLess(mt.differing_fraction(sw), 0.02, "the two software pictures differ")

        v.key("b")  # the B key; with Shift it darkens
        line = poll("the brightness text", lambda: v.prog.stdout()[len(expected):].endswith("\n")
                    and v.prog.stdout()[len(expected):], 10)
        self.assertRegex(line, r"^Brightness set to [0-9.e+-]+\n$")
        value = float(line.split()[-1])
        self.assertEqual(line, "Brightness set to %g\n" % value)
        self.assertAlmostEqual(value / (auto * 1.125), 1.0, delta=2e-5)
        brighter = v.settled(mt)
        self.assertGreater(brighter.mean(), mt.mean(), "B did not brighten the picture")
        expected += line

        v.key("shift+b")
        back = f"Brightness set to {auto_text}\n"  # back to the automatic brightness
        v.prog.wait_stdout(expected + back)
        expected += back
        v.key("plus")
        expected += "LOD multiplier set to 1.1\n"
        v.prog.wait_stdout(expected)
        v.key("KP_Subtract")
        expected += "LOD multiplier set to 1\n"
        v.prog.wait_stdout(expected)

        self.assertEqual(v.exit(), 0)
        self.assertEqual(v.prog.stdout(), expected)
        self.assertEqual(v.prog.stderr(), "")

    def test_views_orbit_and_boxes(self):
        """Left looks along +x at the middle of the room (the off-screen frame from there is
        the reference) and, after a drag has orbited the camera, shows the same picture again;
        Top looks elsewhere; About and Properties come up by their titles, from the menus and
        the p key, and close with Return. The title keeps the name as it was given."""
        path = synthesise(self.dir)
        # Left looks along +x at the middle of the box from the distance of the orbit centre,
        # which starts at the stored view's target.
        m = box_middle(self.dir, path)
        dist = sum((a - b) ** 2 for a, b in zip(EYE, TARGET)) ** 0.5
        ref_left, _ = offscreen(self.dir, path, "offscreen-left.png", "--fov", str(FOV),
                                "--up", "z", "--eye", csv([m[0] - dist, m[1], m[2]]),
                                "--target", csv(m))
        v = Viewer(self, ["room.lumap"], self.dir, "viewer")
        win = v.wait_main_window(f"{TITLE}: room.lumap")
        self.assertEqual(X.window_name(win), f"{TITLE}: room.lumap")
        start = v.settled()

        v.key("4")
        left = v.settled(start)
        save(left, "viewer-left.png")
        non_blank(self, left, "Left view")
        self.assertLess(layout_change(left, ref_left), 0.01, "Left: not along +x at the middle")

        cx, cy = v.canvas_at[0] + CANVAS[0] // 2, v.canvas_at[1] + CANVAS[1] // 2
        X.drag(win, cx, cy, 120, -60)
        orbited = v.settled(left)
        save(orbited, "viewer-orbited.png")
        self.assertGreater(layout_change(orbited, left), 0.2, "the drag hardly moved")

        v.key("4")
        again = v.settled(orbited)
        save(again, "viewer-left-again.png")
        self.assertLess(layout_change(again, left), 0.01,
                        "Left after an orbit differs from Left before it")

        v.key("6")
        top = v.settled(again)
        save(top, "viewer-top.png")
        non_blank(self, top, "Top view")
        self.assertGreater(layout_change(top, left), 0.2, "Top looks like Left")

        v.menu("h", "Return")  # Help > About
        self.assertRegex(v.dialog(ABOUT), r"^Irradiance map viewer version \d+\.\d+\.\d+\n"
                                          r"Last updated \w{3} [ \d]\d \d{4}$")
        # Properties shows the report that -info prints.
        info = subprocess.run([ARGS.cacheview, "-load", path, "-info", "-nodisplay"],
                              capture_output=True, text=True, check=True).stdout
        report = info.split("Irradiance map information:\n", 1)[1]
        v.key("p")
        self.assertEqual(v.dialog(PROPERTIES), report)
        v.menu("f", *["Down"] * 4, "Return")  # File > Properties...
        self.assertEqual(v.dialog(PROPERTIES), report)
        self.assertEqual(X.windows_titled(f"{TITLE}: room.lumap"), [win])

        self.assertEqual(v.exit(), 0)
        self.assertEqual(v.prog.stdout(), "")
        self.assertEqual(v.prog.stderr(), "")


def main():
    global ARGS
    ARGS, rest = xharness.parse_test_args()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)


if __name__ == "__main__":
    main()
