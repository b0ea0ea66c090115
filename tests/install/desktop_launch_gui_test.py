"""The desktop integration as a person meets it: the build installed into a fresh prefix, its
MIME package and desktop entry compiled into that prefix's databases, and a map of each kind
opened the way a file manager opens it (gio open, which goes by the file's MIME type to the
default application's desktop entry). The installed viewer must come up on a private X server
showing that file, and draw it.

    desktop_launch_gui_test.py --build DIR --tmp DIR
"""

import argparse
import os
import shutil
import signal
import subprocess
import sys
import unittest

sys.dont_write_bytecode = True  # no cache files in the source tree
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "gui"))

import xharness  # noqa: E402
from xharness import XServer, poll  # noqa: E402

ARGS = None
X = None
TITLE = "Irradiance map viewer"


def setUpModule():
    global X
    os.makedirs(ARGS.tmp, exist_ok=True)
    X = XServer(ARGS.tmp)


def tearDownModule():
    if X is not None:
        X.stop()


class DesktopLaunchTest(unittest.TestCase):
    def setUp(self):
        self.root = os.path.abspath(ARGS.tmp)
        shutil.rmtree(self.root, ignore_errors=True)
        os.makedirs(self.root)
        self.prefix = os.path.join(self.root, "prefix")
        subprocess.run(["cmake", "--install", ARGS.build, "--prefix", self.prefix], check=True,
                       stdout=subprocess.DEVNULL, timeout=120)
        share = os.path.join(self.prefix, "share")
        # The desktop's own data directories come after the prefix, as on a system where the
        # package is installed in /usr/local.
        self.env = X.env({
            "XDG_DATA_DIRS": share + ":/usr/share",
            "XDG_DATA_HOME": os.path.join(self.root, "data-home"),
            "XDG_CONFIG_HOME": os.path.join(self.root, "config-home"),
            "PATH": os.path.join(self.prefix, "bin") + os.pathsep + os.environ["PATH"],
        })
        subprocess.run(["update-mime-database", os.path.join(share, "mime")], env=self.env,
                       check=True, capture_output=True, timeout=60)
        subprocess.run(["update-desktop-database", os.path.join(share, "applications")],
                       env=self.env, check=True, timeout=60)

    def open_like_a_file_manager(self, path):
        """Opens the file through its MIME type's default application; returns the viewer's
        window and process id (the viewer is gio's child, not ours: it is ended by its id)."""
        subprocess.run(["gio", "open", path], env=self.env, check=True, timeout=20)
        title = f"{TITLE}: {path}"
        win = X.wait_window(title, timeout=30)
        pid = int(X.xdo("getwindowpid", win).strip())
        self.addCleanup(self.end, pid)
        return win, pid

    @staticmethod
    def end(pid):
        try:
            os.kill(pid, signal.SIGTERM)
        except ProcessLookupError:
            pass

    def test_both_kinds_open_in_the_installed_viewer(self):
        synth = os.path.join(self.prefix, "bin", "cacheview-synth")
        for name in ("room.lumap", "room.lulmap"):
            path = os.path.join(self.root, name)
            subprocess.run([synth, "--quiet", "--count", "20000", path], check=True, timeout=60)
            win, pid = self.open_like_a_file_manager(path)
            exe = os.readlink(f"/proc/{pid}/exe")
            self.assertEqual(exe, os.path.join(self.prefix, "bin", "cacheview"))
            # The map is drawn: a settled picture with many colours, not just the background.
            shot = poll("the map drawn", lambda: (lambda s: s if s.colours() > 200 else None)(
                X.grab(win)), 30)
            shot.save_png(os.path.join(self.root, name + ".png"))
            self.assertLess(shot.background_fraction(), 0.9)
            self.end(pid)
            X.wait_window_gone(f"{TITLE}: {path}", timeout=15)


def main():
    global ARGS
    p = argparse.ArgumentParser()
    p.add_argument("--build", required=True)
    p.add_argument("--tmp", required=True)
    ARGS, rest = p.parse_known_args()
    missing = xharness.missing_tools() + [t for t in ("gio", "update-desktop-database",
                                                      "update-mime-database")
                                          if shutil.which(t) is None]
    if missing:
        print("skipped: not installed: " + ", ".join(missing))
        sys.exit(xharness.SKIP)
    unittest.main(argv=[sys.argv[0]] + rest)


if __name__ == "__main__":
    main()
