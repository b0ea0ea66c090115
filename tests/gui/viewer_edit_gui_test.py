"""The viewer's file commands and editing driven as a person drives them: file dialogs filled in
by typing a path (Ctrl+L in GTK's chooser), a rubber band dragged over the room, Delete, Undo and
Redo, and the files written checked with the batch tool.

    viewer_edit_gui_test.py --cacheview BIN --synth BIN --render BIN --tmp DIR [unittest args]

The Undo and Redo items' labels are read from the debug log (CACHEVIEW_DEBUG_LOG), where the
window writes them each time it refreshes them, as when the Edit menu opens.
"""

import os
import re
import resource
import shutil
import signal
import subprocess
import sys
import time
import unittest

sys.dont_write_bytecode = True  # no cache files in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import viewer_gui_test as base  # noqa: E402
import xharness  # noqa: E402
from xharness import XServer, poll  # noqa: E402

ARGS = None
TITLE = base.TITLE
OPEN = "Choose irradiance or light cache file to load"
SAVE = "Choose irradiance or light cache file to save"
IMPORT = "Choose irradiance map file to import"
# File menu positions below the first item.
SAVE_ITEM, ADD_ITEM, INCREMENTAL_ITEM = 1, 2, 3


def setUpModule():
    os.makedirs(ARGS.tmp, exist_ok=True)
    base.ARGS = ARGS
    base.X = XServer(ARGS.tmp)


def tearDownModule():
    if base.X is not None:
        base.X.stop()


def synth(directory, name, *options, count=20000):
    path = os.path.join(directory, name)
    subprocess.run([ARGS.synth, "--count", str(count), "--seed", "1", "--quiet", *options,
                    "-o", path], check=True, timeout=60)
    return path


def batch(*args, cwd=None):
    # Bytes, decoded without newline translation: the progress line ends its steps with "\r".
    return subprocess.run([ARGS.cacheview, *args], capture_output=True, check=True,
                          timeout=60, cwd=cwd).stdout.decode()


def sample_count(path):
    out = batch("-load", path, "-info", "-nodisplay")
    return int(re.search(r"Number of samples: (\d+)", out).group(1))


def after_loads(out):
    """The batch tool's output after its "Loaded ..." lines: what the merges printed."""
    # Lines end at "\n" only: the progress rewrites its line with "\r".
    return "".join(line + "\n" for line in out.split("\n")[:-1]
                   if not line.startswith("Loaded "))


class Session(base.Viewer):
    """A viewer with its debug log, and the dialogs a file command opens."""

    def __init__(self, test, args, cwd, **how):
        self.log = os.path.join(cwd, "debug.log")
        os.environ["CACHEVIEW_DEBUG_LOG"] = self.log
        try:
            super().__init__(test, args, cwd, "viewer", **how)
        finally:
            del os.environ["CACHEVIEW_DEBUG_LOG"]

    def file_command(self, position, title, path, location=True):
        """Chooses File > item, types the path into the dialog and confirms it."""
        self.menu("f", *["Down"] * position, "Return")
        self.choose(title, path, location)

    def choose(self, title, path, location=True):
        d = base.X.wait_window(title, timeout=15, proc=self.prog.proc)
        settled(d)
        base.X.focus(d)
        # The open dialogs take a typed path in their location field; the save dialog's name
        # field takes a whole path too.
        base.X.key("ctrl+l" if location else "ctrl+a")
        base.X.xdo("type", "--delay", "10", path)
        # While the path is typed the chooser may pop up completions, which take the first
        # Return: it is pressed again until the dialog has gone.
        for attempt in range(4):
            settled(d)
            base.X.key("Return")
            try:
                base.X.wait_window_gone(title, timeout=3)
                return
            except xharness.HarnessError:
                if attempt == 3:
                    raise

    def message(self):
        """The text of the message box captioned with the bare title, which it closes."""
        return self.dialog(TITLE)

    def edit_labels(self):
        """The Undo and Redo labels as the Edit menu shows them: the menu is opened, which
        refreshes them, and the last refresh in the log is read."""
        before = self._log_lines()
        self.menu("e")
        line = poll("the Edit menu's refresh", lambda: len(self._log_lines()) > len(before)
                    and self._log_lines()[-1], 10)
        base.X.key("Escape")
        return line

    def _log_lines(self):
        if not os.path.exists(self.log):
            return []
        with open(self.log) as f:
            return [l for l in f.read().splitlines() if l.startswith("edit menu:")]


def settled(wid, timeout=15):
    """Waits until a window's picture has not changed for 0.3 s (a dialog filling itself in
    takes no keys yet)."""
    last = [base.X.grab(wid).data, time.monotonic()]

    def look():
        now = base.X.grab(wid).data
        if now != last[0]:
            last[:] = [now, time.monotonic()]
            return False
        return time.monotonic() - last[1] >= 0.3
    poll("the dialog to settle", look, timeout)


def labels(undo, undo_on, redo, redo_on):
    state = lambda on: "enabled" if on else "disabled"  # noqa: E731
    return f'edit menu: "{undo}\\tCtrl+z" {state(undo_on)}, "{redo}\\tCtrl+y" {state(redo_on)}'


class ViewerEditGuiTest(unittest.TestCase):

    def setUp(self):
        self.dir = xharness.fresh_case_dir(self, ARGS.tmp)

    def test_open_cancel_and_bad_files(self):
        """Open through the dialog changes the title; a cancelled dialog and files that are no
        map (a JPEG renamed .lumap, a truncated map, an empty file) leave title and picture as
        they were."""
        first = synth(self.dir, "first.lumap")
        second = synth(self.dir, "second.lumap", "--camera", "1", count=10000)
        with open(first, "rb") as f:
            data = f.read()
        truncated = os.path.join(self.dir, "truncated.lumap")
        with open(truncated, "wb") as f:
            f.write(data[:len(data) // 3])
        jpeg = os.path.join(self.dir, "photo.lumap")
        with open(jpeg, "wb") as f:
            f.write(b"\xff\xd8\xff\xe0\x00\x10JFIF\x00" + bytes(range(256)) * 8)
        empty = os.path.join(self.dir, "empty.lumap")
        open(empty, "wb").close()

        v = Session(self, [first], self.dir)
        v.wait_main_window(f"{TITLE}: {first}")
        v.key("o")
        v.choose(OPEN, second)
        win = base.X.wait_window(f"{TITLE}: {second}", proc=v.prog.proc)
        shown = v.settled()
        base.save(shown, "edit-opened.png")

        v.key("o")
        d = base.X.wait_window(OPEN, timeout=15, proc=v.prog.proc)
        base.X.focus(d)
        base.X.key("Escape")
        base.X.wait_window_gone(OPEN)
        self.assertEqual(base.X.window_name(win), f"{TITLE}: {second}")

        for bad in (jpeg, truncated, empty):
            v.key("o")
            v.choose(OPEN, bad)
            self.assertEqual(v.message(), "Unrecognized map format.")
            self.assertEqual(base.X.window_name(win), f"{TITLE}: {second}", bad)
        after = v.settled()
        self.assertLess(base.layout_change(after, shown), 0.01, "the old map is not drawn")

        self.assertEqual(v.exit(), 0)
        self.assertEqual(v.prog.stdout(), "")
        self.assertEqual(v.prog.stderr(), "")

    def test_unreadable_files_and_failed_saves(self):
        """A file the user may not read and a light cache of a version this build does not
        know give their message box and keep the map; a save into a read-only folder or onto a
        full disk says "Error saving file." and leaves the old file byte for byte, with no
        temporary file beside it. The viewer runs without the privilege to override file
        permissions (tests may run as root) and with a file size limit standing in for a full
        disk."""
        first = synth(self.dir, "first.lumap")
        locked = shutil.copy(first, os.path.join(self.dir, "locked.lumap"))
        os.chmod(locked, 0)
        future = synth(self.dir, "future.lulmap", count=2000)
        with open(future, "r+b") as f:
            f.write((0x7FFF0000).to_bytes(4, "little"))  # the version word
        targets = {}
        for folder in ("read-only", "full"):
            os.makedirs(os.path.join(self.dir, folder))
            targets[folder] = os.path.join(self.dir, folder, "kept.lumap")
            with open(targets[folder], "wb") as f:
                f.write(b"the old file")
        os.chmod(os.path.dirname(targets["read-only"]), 0o555)
        self.addCleanup(os.chmod, os.path.dirname(targets["read-only"]), 0o755)

        def small_disk():
            limit = 256 * 1024  # the map written is 1.7 MB
            resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)  # a write past it fails instead

        v = Session(self, [first], self.dir, preexec=small_disk,
                    wrapper=["setpriv", "--bounding-set", "-dac_override,-dac_read_search"])
        win = v.wait_main_window(f"{TITLE}: {first}")
        shown = v.settled()
        for bad in (locked, future):
            v.key("o")
            v.choose(OPEN, bad)
            self.assertEqual(v.message(), "Unrecognized map format.")
            self.assertEqual(base.X.window_name(win), f"{TITLE}: {first}", bad)
        for folder, target in targets.items():
            v.file_command(SAVE_ITEM, SAVE, target, location=False)
            self.assertEqual(v.message(), "Error saving file.", folder)
            self.assertEqual(base.X.window_name(win), f"{TITLE}: {first}", folder)
            with open(target, "rb") as f:
                self.assertEqual(f.read(), b"the old file", folder)
            self.assertEqual(os.listdir(os.path.dirname(target)), ["kept.lumap"], folder)
        self.assertLess(base.layout_change(v.settled(), shown), 0.01, "the map is not drawn")
        self.assertEqual(v.exit(), 0)
        self.assertEqual(v.prog.stdout(), "")

    def round_trip(self, name, options, measure):
        """Selects part of the room with a rubber band, deletes it, saves, undoes, saves,
        redoes and leaves with Save on the question about unsaved deletions. `measure` gives a
        saved file's size in samples or bytes."""
        path = synth(self.dir, name, *options)
        ext = os.path.splitext(name)[1]
        total = measure(path)
        v = Session(self, [path], self.dir)
        win = v.wait_main_window(f"{TITLE}: {path}")
        start = v.settled()
        if ext == ".lulmap":
            v.key("p")
            self.assertEqual(v.dialog("Light cache properties"),
                             "Number of samples: 20000\nSample size (bytes): 120")

        v.key("s")  # Activate Selection: a plain drag now draws a rubber band
        x0, y0 = v.canvas_at[0] + 250, v.canvas_at[1] + 200
        base.X.drag(win, x0, y0, 300, 200, steps=12)
        selected = v.settled(start)
        base.save(selected, f"edit-selected{ext}.png")
        v.key("Delete")
        deleted = v.settled(selected)
        base.save(deleted, f"edit-deleted{ext}.png")
        self.assertEqual(v.edit_labels(), labels("Undo Delete", True, "Redo ", False))

        cut = os.path.join(self.dir, "cut" + ext)
        v.file_command(SAVE_ITEM, SAVE, cut, location=False)
        poll("the saved file", lambda: os.path.exists(cut), 15)
        self.assertLess(measure(cut), total)
        self.assertGreater(measure(cut), 0)

        v.key("ctrl+z")
        restored = v.settled(deleted)
        self.assertLess(base.layout_change(restored, start), 0.01, "Undo did not restore")
        self.assertEqual(v.edit_labels(), labels("Undo ", True, "Redo Delete", True))
        v.key("ctrl+z")  # nothing left to undo: nothing happens
        whole = os.path.join(self.dir, "whole" + ext)
        v.file_command(SAVE_ITEM, SAVE, whole, location=False)
        poll("the saved file", lambda: os.path.exists(whole), 15)
        self.assertEqual(measure(whole), total)

        v.key("ctrl+y")
        v.settled(restored)
        self.assertEqual(v.edit_labels(), labels("Undo Delete", True, "Redo ", False))
        # Redo marks the map modified: leaving asks. Cancel stays; Yes saves, then leaves.
        v.menu("f", "End", "Return")
        box = base.X.wait_window(TITLE, timeout=15, proc=v.prog.proc)
        base.X.focus(box)
        base.X.key("Escape")
        base.X.wait_window_gone(TITLE)
        self.assertIsNone(v.prog.proc.poll(), "Cancel closed the window")
        v.menu("f", "End", "Return")
        box = base.X.wait_window(TITLE, timeout=15, proc=v.prog.proc)
        base.X.focus(box)
        base.X.key("Return")  # Yes
        redone = os.path.join(self.dir, "redone" + ext)
        v.choose(SAVE, redone, location=False)
        self.assertEqual(v.prog.wait_exit(15), 0)
        self.assertEqual(measure(redone), measure(cut))
        self.assertEqual(v.prog.stdout(), "")

    def test_irradiance_delete_save_undo_redo(self):
        self.round_trip("room.lumap", [], sample_count)

    def test_light_cache_delete_save_undo_redo(self):
        self.round_trip("room.lulmap", [], os.path.getsize)

    def test_add_and_incremental_add_print_the_batch_progress(self):
        """Add and Incremental add print what the batch tool prints for the same merges, the
        warning about an old map included, and retitle the window."""
        first = synth(self.dir, "first.lumap")
        second = synth(self.dir, "second.lumap", "--camera", "1", count=10000)
        old = synth(self.dir, "old.lumap", "--version", "0xC0000", "--seed", "3", count=5000)
        expected = after_loads(batch("-load", first, "-load", second, "-nodisplay"))
        expected += after_loads(batch("-incremental", "-load", first, "-load", old,
                                      "-nodisplay"))
        self.assertIn("Warning: This irradiance map does not support incremental add", expected)

        v = Session(self, [first], self.dir)
        v.wait_main_window(f"{TITLE}: {first}")
        start = v.settled()
        v.file_command(ADD_ITEM, IMPORT, second)
        base.X.wait_window(f"{TITLE}: {second}", proc=v.prog.proc)
        v.file_command(INCREMENTAL_ITEM, IMPORT, old)
        win = base.X.wait_window(f"{TITLE}: {old}", proc=v.prog.proc)
        v.prog.wait_stdout(expected, timeout=30)
        merged = v.settled(start)
        base.save(merged, "edit-merged.png")
        self.assertIn(win, base.X.windows_titled(f"{TITLE}: {old}"))

        # The merged map is the one in memory: Save writes all of it.
        out = os.path.join(self.dir, "merged.lumap")
        v.file_command(SAVE_ITEM, SAVE, out, location=False)
        poll("the saved file", lambda: os.path.exists(out), 15)
        self.assertEqual(sample_count(out), 20000 + 10000 + 5000)
        self.assertEqual(v.exit(), 0)
        self.assertEqual(v.prog.stdout(), expected)


def main():
    global ARGS
    ARGS, rest = xharness.parse_test_args()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)


if __name__ == "__main__":
    main()
