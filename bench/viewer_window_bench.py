#!/usr/bin/env python3
"""Frame times of the viewer window against the same frames drawn off screen, in one run.

    bench/viewer_window_bench.py [BUILD_DIR] [--rounds N] [--frames N] [--big-map FILE]
                                 [--drag-modes gl,sw-threads] [--keep DIR]

BUILD_DIR (default build/) must hold a built cacheview, cacheview-synth and render_bench: the
script builds nothing. It runs on a private Xvfb (the first free display from :90 up, Mesa's
llvmpipe behind GLX) and needs Xvfb, xdotool and ImageMagick's import, as the GUI tests do.

What it measures:

1. A map of one million samples, synthesised with the parameters of render_bench's room (the
   synthesiser's defaults), shown in an 800 x 600 canvas from the view stored in it. The window
   draws it with OpenGL immediate mode, with display lists, with the software rasterizer on one
   thread and on all threads (switched through Rendering > Rasterizer and "Use Display Lists"),
   and View > From file asks for each frame again without moving the camera. render_bench's
   BM_Viewer* benchmarks draw the same frames off screen: the same room and camera, the
   window's default quality (6-sided discs) and the window's software replay threads. The
   window's frame is timed from the start of drawFrame to the presented picture (swap and
   glFinish for OpenGL, the bitmap the paint shows for software); the first frame after each
   switch is left out (it compiles the display list or starts the workers), as render_bench
   leaves out its warm-up frame. Reported per kind: the median window frame, the median
   off-screen frame, and their ratio (target: the window adds at most 10 %, ratio <= 1.10).

2. A long left drag over a map of ten million samples: the median and 90th percentile of the
   reduced frames drawn while the camera moves (target: under 40 ms), per rasterizer asked for.

The window and the off-screen runs alternate their order over the rounds, so that a slow phase
of the machine falls on both. Absolute times vary 2-3x between machines and days; only the
ratios of one run are meant to be compared. Other load on the machine shows in the spread of
the rounds: the load average is printed at the start and the end.

The window writes its frames to the file named by CACHEVIEW_FRAME_LOG (one line per frame:
kind, stride, samples drawn, milliseconds); this script reads it. Every process it starts
(Xvfb, cacheview, render_bench, the synthesiser) ends before it does.
"""

import argparse
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True  # no cache files in the source tree
HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, os.pardir, "tests", "gui"))
import xharness  # noqa: E402
from xharness import HarnessError, Program, XServer, poll  # noqa: E402

TITLE = "Irradiance map viewer"
CANVAS = (800, 600)
KINDS = ("gl", "gl-lists", "sw", "sw-threads")
# The off-screen benchmark that draws each kind's frame.
OFFSCREEN = {"gl": "BM_ViewerGL", "gl-lists": "BM_ViewerGLLists", "sw": "BM_ViewerSoftware",
             "sw-threads": "BM_ViewerSoftwareThreads"}
# Position of each rasterizer in the Rendering menu's Rasterizer submenu.
RASTERIZER_ITEM = {"gl": 0, "sw-threads": 1, "sw": 2}
TARGET_RATIO = 1.10
TARGET_DRAG_MS = 40.0


def percentile(values, p):
    """The p-th percentile (0-100) by linear interpolation between the nearest ranks."""
    v = sorted(values)
    if not v:
        return float("nan")
    k = (len(v) - 1) * p / 100.0
    lo = int(k)
    hi = min(lo + 1, len(v) - 1)
    return v[lo] + (v[hi] - v[lo]) * (k - lo)


class FrameLog:
    """The window's frame log: (kind, stride, drawn, ms) per frame, in order."""

    def __init__(self, path):
        self.path = path

    def frames(self):
        if not os.path.exists(self.path):
            return []
        out = []
        with open(self.path) as f:
            for line in f:
                parts = line.split()
                if len(parts) == 4 and line.endswith("\n"):
                    out.append((parts[0], int(parts[1]), int(parts[2]), float(parts[3])))
        return out

    def count(self):
        return len(self.frames())

    def wait_for(self, since, what, check, timeout):
        """Waits until a frame after the first `since` satisfies check; returns its index."""
        def look():
            for i, f in enumerate(self.frames()[since:]):
                if check(f):
                    return since + i + 1
            return None
        return poll(what, look, timeout)


class Window:
    """cacheview on the X server showing one map, its frames logged."""

    def __init__(self, x, args, workdir, name, map_path):
        self.x = x
        self.log = FrameLog(os.path.join(workdir, f"{name}.frames"))
        if os.path.exists(self.log.path):
            os.remove(self.log.path)
        os.environ["CACHEVIEW_FRAME_LOG"] = self.log.path
        try:
            self.prog = Program(x, [args.cacheview, map_path], workdir, name)
        finally:
            del os.environ["CACHEVIEW_FRAME_LOG"]
        try:
            self.win = x.wait_window(f"{TITLE}: {map_path}", timeout=300, proc=self.prog.proc)
            self.canvas_at = poll("the canvas", lambda: x.child_rect(self.win, *CANVAS), 30)
            self.log.wait_for(0, "the first frame", lambda f: True, 300)
        except BaseException:
            self.prog.stop()
            raise

    def focus(self):
        self.x.focus(self.win, self.canvas_at[0] + CANVAS[0] // 2,
                     self.canvas_at[1] + CANVAS[1] // 2)

    def menu(self, mnemonic, *moves):
        self.focus()
        self.x.key(f"alt+{mnemonic}")
        for k in moves:
            self.x.key(k)

    def view_from_file(self):
        # View: Up axis, Show Axis, (separator), From file.
        self.menu("v", "Down", "Down", "Return")

    def switch_to(self, kind, current):
        """From the kind drawn now to another, through the menus."""
        rasterizer = {"gl": "gl", "gl-lists": "gl", "sw": "sw", "sw-threads": "sw-threads"}
        if (current == "gl-lists") != (kind == "gl-lists") and kind.startswith("gl"):
            # Rendering: Rasterizer, Backface Culling, Use Display Lists. The software kinds
            # compile nothing, so leaving OpenGL leaves the item as it is.
            self.menu("r", "Down", "Down", "Return")
        if rasterizer[kind] == rasterizer[current]:
            return
        if rasterizer[kind] != "gl" and rasterizer[current] != "gl":
            # Choosing the other software kind while software draws only takes effect at the
            # next switch: go through OpenGL.
            self.choose_rasterizer("gl")
        self.choose_rasterizer(rasterizer[kind])

    def choose_rasterizer(self, rasterizer):
        self.menu("r", "Right", *(["Down"] * RASTERIZER_ITEM[rasterizer]), "Return")

    def full_frames(self, kind, count, timeout):
        """count full frames of kind, each asked for by View > From file, after one left out."""
        n = self.log.count()
        self.view_from_file()
        n = self.log.wait_for(n, f"a first {kind} frame", lambda f: f[0] == kind and f[1] == 1,
                              timeout)
        start = n
        while sum(1 for f in self.log.frames()[start:] if f[0] == kind and f[1] == 1) < count:
            n = self.log.count()
            self.view_from_file()
            self.log.wait_for(n, f"a {kind} frame", lambda f: f[0] == kind and f[1] == 1, timeout)
        return [f[3] for f in self.log.frames()[start:] if f[0] == kind and f[1] == 1]

    def drag(self, steps, step_px, pause_s):
        """A left drag from the canvas' middle, `steps` motions of step_px pixels to the right
        and back, one xdotool process for all of it so that the motions come evenly."""
        wx, wy, _, _ = self.x.geometry(self.win)
        x0 = wx + self.canvas_at[0] + CANVAS[0] // 2 - steps * step_px // 4
        y0 = wy + self.canvas_at[1] + CANVAS[1] // 2
        cmd = ["mousemove", x0, y0, "mousedown", 1]
        x = x0
        for i in range(steps):
            x += step_px if i < steps // 2 else -step_px
            cmd += ["sleep", f"{pause_s:.3f}", "mousemove", x, y0 + (i % 7) - 3]
        cmd += ["mouseup", 1]
        self.focus()
        n = self.log.count()
        self.x.run("xdotool", *[str(c) for c in cmd], timeout=60 + steps * pause_s * 4)
        return n

    def close(self):
        try:
            self.menu("f", "End", "Return")
            self.prog.wait_exit(60)
        except HarnessError:
            pass
        finally:
            self.prog.stop()


def synthesise(args, path, count):
    if os.path.exists(path):
        return path
    subprocess.run([args.synth, "--count", str(count), "--quiet", "-o", path], check=True,
                   timeout=900)
    return path


def offscreen(args, workdir, round_no):
    """Frame times (ms) of the BM_Viewer* benchmarks: a list of per-repetition means per kind."""
    out = os.path.join(workdir, f"render_bench.{round_no}.json")
    subprocess.run([args.render_bench, "--benchmark_filter=^BM_Viewer",
                    f"--benchmark_repetitions={args.bench_repetitions}",
                    "--benchmark_report_aggregates_only=false",
                    f"--benchmark_out={out}", "--benchmark_out_format=json"],
                   check=True, timeout=1800, stdout=subprocess.DEVNULL)
    with open(out) as f:
        data = json.load(f)
    times = {k: [] for k in KINDS}
    for b in data["benchmarks"]:
        if b.get("run_type") != "iteration" or b.get("error_occurred"):
            continue
        for kind, name in OFFSCREEN.items():
            if b["run_name"].split("/")[0] == name:
                assert b["time_unit"] == "ms", b["time_unit"]
                times[kind].append(b["real_time"])
    return times


def window_round(args, x, workdir, round_no, map_path):
    w = Window(x, args, workdir, f"window.{round_no}", map_path)
    times = {}
    try:
        current = "gl"
        if w.log.frames()[0][0] != "gl":
            raise HarnessError(f"the window starts with {w.log.frames()[0][0]}, not gl")
        for kind in KINDS:
            w.switch_to(kind, current)
            current = kind
            times[kind] = w.full_frames(kind, args.frames, timeout=300)
    finally:
        w.close()
    return times


def drag_run(args, x, workdir, map_path, kind):
    w = Window(x, args, workdir, f"drag.{kind}", map_path)
    try:
        w.switch_to(kind, "gl")
        # A full frame after the left-out one: its time sets the stride of the reduced frames.
        full = w.full_frames(kind, 1, timeout=600)
        n = w.drag(args.drag_steps, 4, args.drag_pause)
        # The whole map follows once the motion settles.
        w.log.wait_for(n, "the full frame after the drag", lambda f: f[0] == kind and f[1] == 1,
                       600)
        frames = [f for f in w.log.frames()[n:] if f[0] == kind]
        reduced = [f for f in frames if f[1] > 1]
    finally:
        w.close()
    return full, reduced


def one_million(args, x, workdir):
    """The window's full frames of a 1M-sample map against render_bench's, round by round."""
    map1 = synthesise(args, os.path.join(workdir, "room1m.lumap"), 1000000)
    window = {k: [] for k in KINDS}
    off = {k: [] for k in KINDS}
    per_round = []
    for r in range(args.rounds):
        order = ("window", "offscreen") if r % 2 == 0 else ("offscreen", "window")
        got = {}
        for what in order:
            t0 = time.monotonic()
            got[what] = (window_round(args, x, workdir, r, map1) if what == "window"
                         else offscreen(args, workdir, r))
            print(f"round {r + 1}: {what} done in {time.monotonic() - t0:.0f} s", flush=True)
        for k in KINDS:
            window[k] += got["window"][k]
            off[k] += got["offscreen"][k]
        per_round.append({k: statistics.median(got["window"][k]) /
                          statistics.median(got["offscreen"][k]) for k in KINDS})

    print("\nOne million samples, 800 x 600, 6-sided discs: window frame / off-screen frame")
    print(f"{'kind':<11} {'window ms':>10} {'off-screen ms':>14} {'ratio':>6}  "
          f"{'per round':<22} target")
    for k in KINDS:
        wm, om = statistics.median(window[k]), statistics.median(off[k])
        rounds = " ".join(f"{pr[k]:.2f}" for pr in per_round)
        verdict = "ok" if wm / om <= TARGET_RATIO else "OVER"
        print(f"{k:<11} {wm:>10.1f} {om:>14.1f} {wm / om:>6.2f}  {rounds:<22} "
              f"<= {TARGET_RATIO:.2f} {verdict}  ({len(window[k])} window frames, "
              f"{len(off[k])} off-screen runs of 5)")
    sys.stdout.flush()


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("build", nargs="?", default="build")
    ap.add_argument("--rounds", type=int, default=3)
    ap.add_argument("--frames", type=int, default=7, help="full frames per kind and round")
    ap.add_argument("--bench-repetitions", type=int, default=2,
                    help="render_bench repetitions (5 frames each) per round")
    ap.add_argument("--big-map", help="the 10M-sample map to drag over (made when missing)")
    ap.add_argument("--drag-modes", default="gl,sw-threads")
    ap.add_argument("--drag-steps", type=int, default=150)
    ap.add_argument("--drag-pause", type=float, default=0.016, help="seconds between motions")
    ap.add_argument("--keep", help="work in this directory and keep it (logs, maps)")
    args = ap.parse_args()

    build = os.path.abspath(args.build)
    args.cacheview = os.path.join(build, "src", "app", "cacheview")
    args.synth = os.path.join(build, "tools", "cacheview-synth")
    args.render_bench = os.path.join(build, "bench", "render_bench")
    for tool in (args.cacheview, args.synth, args.render_bench):
        if not os.access(tool, os.X_OK):
            sys.exit(f"{tool} is missing: build {build} first")
    missing = xharness.missing_tools()
    if missing:
        sys.exit("missing tools: " + ", ".join(missing))

    workdir = os.path.abspath(args.keep) if args.keep else tempfile.mkdtemp(prefix="cv-wbench-")
    os.makedirs(workdir, exist_ok=True)
    print(f"{os.cpu_count()} processors; load average at the start "
          f"{' '.join(f'{v:.2f}' for v in os.getloadavg())}", flush=True)
    x = None
    try:
        x = XServer(workdir)
        if args.rounds > 0:
            one_million(args, x, workdir)
        big = args.big_map or os.path.join(workdir, "room10m.lumap")

        if not os.path.exists(big):
            t0 = time.monotonic()
            synthesise(args, big, 10000000)
            print(f"\n(10M map synthesised in {time.monotonic() - t0:.0f} s)")
        print("\nTen million samples, a left drag: the reduced frames drawn while moving")
        for kind in [k for k in args.drag_modes.split(",") if k]:
            full, reduced = drag_run(args, x, workdir, big, kind)
            if not reduced:
                print(f"{kind:<11} no reduced frame (full frame {full[0]:.0f} ms)")
                continue
            ms = [f[3] for f in reduced]
            strides = sorted({f[1] for f in reduced})
            med, p90 = statistics.median(ms), percentile(ms, 90)
            verdict = "ok" if p90 < TARGET_DRAG_MS else "OVER"
            print(f"{kind:<11} {len(ms)} frames, stride {','.join(map(str, strides))}: median "
                  f"{med:.1f} ms, 90th percentile {p90:.1f} ms (target < {TARGET_DRAG_MS:.0f} ms "
                  f"{verdict}); full frame {full[0]:.0f} ms")
    finally:
        if x is not None:
            x.stop()
        print(f"load average at the end {' '.join(f'{v:.2f}' for v in os.getloadavg())}")
        if not args.keep:
            shutil.rmtree(workdir, ignore_errors=True)


if __name__ == "__main__":
    main()
