#!/usr/bin/env python3
"""Whole programs against reference programs doing the same work, in one run.

    bench/whole_programs.py [BUILD_DIR] [--rounds N] [--count N] [--keep DIR] [--viewer]

BUILD_DIR (default build/) must hold a built cacheview, cacheview-render, cacheview-synth and
the reference programs of bench/reference (reference-merge, reference-render): the script
builds nothing.

What it times, each program as a new process on maps of --count samples (default one million,
84 MB) that the synthesiser writes once:

1. The incremental merge: `cacheview -incremental -load A -load B -save C -nodisplay` against
   reference-merge, which reads both files, builds the reference octree cache over A, offers B
   and writes the result, once with B from A's camera and once from the second camera. Both
   must write the same bytes. Target: the reference takes at least 2x as long.
2. The software rasterizer: `cacheview-render -b sw` with everything on the calling thread
   (-j 1), with all threads, and with a thread manager of one worker (LUMORA_NUM_THREADS=1)
   against reference-render (the minimal rasterizer: load, draw the same 6-sided discs, write
   the PNG). The three pictures of cacheview-render must be the same file. Targets: all threads
   at least 1.8x faster than -j 1 on two cores; the threaded run's peak memory at most 1.25x
   the -j 1 run's; one worker no slower than -j 1.
3. The incremental merge of four frames (A, B, C and a fourth from the second camera) on one
   thread (LUMORA_NUM_THREADS=1) and on all of them: both must write the same bytes. Reported:
   one thread's time over all threads', and how much higher the peak memory of all threads is,
   per thread (target: a few MB).
4. With --viewer: a map of ten million samples; `cacheview -load MAP -nodisplay` (a plain load)
   against the viewer's time from its start to its first picture (on a private Xvfb, as the GUI
   tests run it; the frame log of CACHEVIEW_FRAME_LOG tells when the first frame is drawn).

The programs of a round run one after the other, in the opposite order in the next round, so
that a slow phase of the machine falls on all of them; the renders, which take a fraction of a
second, run --repeats times a round in turns. Reported: the median wall time and the
median peak resident memory of each, and the ratios of the medians. Absolute times vary 2-3x
between machines and days; only ratios of one run mean anything. The load average is printed
at the start and the end: run it once on a quiet machine and once with another process busy.
"""

import argparse
import filecmp
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True  # no cache files in the source tree


def run(cmd, env=None, timeout=1800):
    """Runs one program; returns (wall seconds, peak resident memory in MB)."""
    start = time.monotonic()
    proc = subprocess.Popen(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, env=env)
    try:
        _, status, usage = os.wait4(proc.pid, 0)
    except BaseException:
        proc.kill()
        proc.wait()
        raise
    wall = time.monotonic() - start
    proc.returncode = os.waitstatus_to_exitcode(status)
    err = proc.stderr.read().decode(errors="replace")
    proc.stderr.close()
    if proc.returncode != 0:
        sys.exit(f"{' '.join(cmd)} failed ({proc.returncode}): {err}")
    return wall, usage.ru_maxrss / 1024.0


def synthesise(synth, path, count, seed, camera):
    if not os.path.exists(path):
        subprocess.run([synth, "--count", str(count), "--seed", str(seed), "--camera",
                        str(camera), "--quiet", "-o", path], check=True, timeout=1800)
    return path


def first_picture_seconds(cacheview, big, workdir, round_no):
    """Seconds from starting the viewer on `big` to its first frame in the frame log."""
    here = os.path.dirname(os.path.abspath(__file__))
    sys.path.insert(0, os.path.join(here, os.pardir, "tests", "gui"))
    import xharness  # noqa: E402
    log = os.path.join(workdir, f"viewer.{round_no}.frames")
    if os.path.exists(log):
        os.remove(log)
    x = xharness.XServer(workdir)
    prog = None
    try:
        os.environ["CACHEVIEW_FRAME_LOG"] = log
        start = time.monotonic()
        try:
            prog = xharness.Program(x, [cacheview, big], workdir, f"viewer.{round_no}")
        finally:
            del os.environ["CACHEVIEW_FRAME_LOG"]

        def drawn():
            if os.path.exists(log):
                with open(log) as f:
                    if any(line.endswith("\n") for line in f):
                        return True
            return None
        xharness.poll("the first frame", drawn, 900)
        return time.monotonic() - start
    finally:
        if prog is not None:
            prog.stop()
        x.stop()


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("build", nargs="?", default="build")
    ap.add_argument("--rounds", type=int, default=5)
    ap.add_argument("--count", type=int, default=1000000, help="samples per map")
    ap.add_argument("--repeats", type=int, default=5,
                    help="runs of each render program per round (their median is shown)")
    ap.add_argument("--keep", help="work in this directory and keep it (maps, outputs)")
    ap.add_argument("--viewer", action="store_true",
                    help="also the viewer's first picture of a 10M-sample map against its load")
    args = ap.parse_args()
    if args.rounds < 1 or args.repeats < 1:
        ap.error("--rounds and --repeats take a count of at least 1")

    build = os.path.abspath(args.build)
    tools = {
        "cacheview": os.path.join(build, "src", "app", "cacheview"),
        "render": os.path.join(build, "src", "render", "cacheview-render"),
        "synth": os.path.join(build, "tools", "cacheview-synth"),
        "ref_merge": os.path.join(build, "bench", "reference", "reference-merge"),
        "ref_render": os.path.join(build, "bench", "reference", "reference-render"),
    }
    for tool in tools.values():
        if not os.access(tool, os.X_OK):
            sys.exit(f"{tool} is missing: build {build} first")

    workdir = os.path.abspath(args.keep) if args.keep else tempfile.mkdtemp(prefix="cv-whole-")
    os.makedirs(workdir, exist_ok=True)
    print(f"{os.cpu_count()} processors; load average at the start "
          f"{' '.join(f'{v:.2f}' for v in os.getloadavg())}", flush=True)
    try:
        def path(name):
            return os.path.join(workdir, name)
        a = synthesise(tools["synth"], path("a.lumap"), args.count, 1, 0)
        b = synthesise(tools["synth"], path("b.lumap"), args.count, 2, 0)
        c = synthesise(tools["synth"], path("c.lumap"), args.count, 3, 1)
        d = synthesise(tools["synth"], path("d.lumap"), args.count, 4, 1)
        one_worker = dict(os.environ, LUMORA_NUM_THREADS="1")
        four = ["-incremental", "-load", a, "-load", b, "-load", c, "-load", d]
        programs = {
            "merge same camera": [tools["cacheview"], "-incremental", "-load", a, "-load", b,
                                  "-save", path("ours-b.lumap"), "-nodisplay"],
            "reference merge same camera": [tools["ref_merge"], a, b, path("ref-b.lumap")],
            "merge second camera": [tools["cacheview"], "-incremental", "-load", a, "-load", c,
                                    "-save", path("ours-c.lumap"), "-nodisplay"],
            "reference merge second camera": [tools["ref_merge"], a, c, path("ref-c.lumap")],
            "render sw -j 1": [tools["render"], "-b", "sw", "-j", "1", "--quiet", a,
                               path("j1.png")],
            "render sw all threads": [tools["render"], "-b", "sw", "--quiet", a,
                                      path("all.png")],
            "render sw one worker": [tools["render"], "-b", "sw", "--quiet", a,
                                     path("one-worker.png")],
            "reference render": [tools["ref_render"], a, path("ref.png"), "6"],
            "merge four frames, one thread": [tools["cacheview"], *four, "-save",
                                              path("four-one.lumap"), "-nodisplay"],
            "merge four frames, all threads": [tools["cacheview"], *four, "-save",
                                               path("four-all.lumap"), "-nodisplay"],
        }
        envs = {"render sw one worker": one_worker, "merge four frames, one thread": one_worker}
        if args.viewer:
            big = synthesise(tools["synth"], path("big.lumap"), 10 * args.count, 4, 0)
            programs["plain load 10M"] = [tools["cacheview"], "-load", big, "-nodisplay"]

        times = {name: [] for name in programs}
        memory = {name: [] for name in programs}
        first_picture = []
        names = list(programs)
        # The renders take a fraction of a second, where one stall of the machine moves a single
        # run by tens of percent: each round runs them `repeats` times in turns, in alternating
        # order, so that their medians rest on as many runs as the merges' seconds would.
        short = [n for n in names if n.startswith("render") or n == "reference render"]
        first_short = names.index(short[0])
        units = ([[n] for n in names[:first_short] if n not in short] + [short] +
                 [[n] for n in names[first_short:] if n not in short])
        for r in range(args.rounds):
            order = units if r % 2 == 0 else list(reversed(units))
            if args.viewer and r % 2 == 1:
                first_picture.append(first_picture_seconds(tools["cacheview"], big, workdir, r))
            for unit in order:
                repeats = args.repeats if unit is short else 1
                for k in range(repeats):
                    turn = unit if (r + k) % 2 == 0 else list(reversed(unit))
                    for name in turn:
                        wall, peak = run(programs[name], envs.get(name))
                        times[name].append(wall)
                        memory[name].append(peak)
            if args.viewer and r % 2 == 0:
                first_picture.append(first_picture_seconds(tools["cacheview"], big, workdir, r))
            shown = [n for unit in order for n in unit]
            print(f"round {r + 1}: " + ", ".join(
                f"{n} {statistics.median(times[n][-(args.repeats if n in short else 1):]):.2f} s"
                for n in shown), flush=True)

        for ours, ref in (("ours-b.lumap", "ref-b.lumap"), ("ours-c.lumap", "ref-c.lumap")):
            if not filecmp.cmp(path(ours), path(ref), shallow=False):
                print(f"MISMATCH: {ours} and {ref} differ")
        if not filecmp.cmp(path("four-one.lumap"), path("four-all.lumap"), shallow=False):
            print("MISMATCH: four-one.lumap and four-all.lumap differ")
        for picture in ("all.png", "one-worker.png"):
            if not filecmp.cmp(path("j1.png"), path(picture), shallow=False):
                print(f"MISMATCH: j1.png and {picture} differ")

        t = {n: statistics.median(v) for n, v in times.items()}
        m = {n: statistics.median(v) for n, v in memory.items()}
        print(f"\nmedians over {args.rounds} rounds, the renders {args.repeats} times a round "
              f"({args.count} samples per map):")
        for name in names:
            print(f"  {name:32s} {t[name]:7.3f} s  {m[name]:7.1f} MB peak")
        if first_picture:
            print(f"  {'viewer first picture 10M':32s} {statistics.median(first_picture):7.3f} s")
        print("\nratios of the medians:")

        def ratio(label, x, y, target):
            print(f"  {label:58s} {x / y:6.2f}  ({target})")
        ratio("reference merge / merge, same camera", t["reference merge same camera"],
              t["merge same camera"], "target >= 2")
        ratio("reference merge / merge, second camera", t["reference merge second camera"],
              t["merge second camera"], "target >= 2")
        ratio("render -j 1 / reference render", t["render sw -j 1"], t["reference render"],
              "for information")
        ratio("render -j 1 / all threads", t["render sw -j 1"], t["render sw all threads"],
              "target >= 1.8 on two cores")
        ratio("render one worker / -j 1", t["render sw one worker"], t["render sw -j 1"],
              "target <= 1.0")
        ratio("peak memory, all threads / -j 1", m["render sw all threads"],
              m["render sw -j 1"], "target <= 1.25")
        ratio("merge four frames, one thread / all threads", t["merge four frames, one thread"],
              t["merge four frames, all threads"], f"{os.cpu_count()} threads, for information")
        extra = (m["merge four frames, all threads"] - m["merge four frames, one thread"])
        print(f"  {'merge four frames, peak memory over one thread, per thread':58s} "
              f"{extra / os.cpu_count():6.1f} MB  (target: a few MB)")
        if first_picture:
            ratio("viewer first picture / plain load, 10M samples",
                  statistics.median(first_picture), t["plain load 10M"], "for information")
        print(f"\nload average at the end {' '.join(f'{v:.2f}' for v in os.getloadavg())}")
    finally:
        if not args.keep:
            shutil.rmtree(workdir, ignore_errors=True)


if __name__ == "__main__":
    main()
