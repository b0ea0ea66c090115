#!/usr/bin/env bash
# Writes the seed corpus (one small map of every file version of both kinds) and the hand-made
# regression inputs (damaged maps that once crashed or must fail fast) into fuzz/corpus and
# fuzz/regressions. The files are kept in the repository; run this only to remake them.
# Usage: fuzz/make_seeds.sh <build-dir>   (a build that has tools/cacheview-synth)
set -euo pipefail
cd "$(dirname "$0")"
synth="$1/tools/cacheview-synth"
mkdir -p corpus/irradiance corpus/lightcache regressions/irradiance regressions/lightcache

# Irradiance maps: three samples in each version, and the newest version without a camera and
# with render IDs.
for v in 1 2 3 4 5 6 7 8 9 A B C D; do
  "$synth" -q -n 3 -s 5 -V "0x${v}0000" -o "corpus/irradiance/v${v}.lumap"
done
"$synth" -q -n 3 -s 6 --no-camera --render-ids -o corpus/irradiance/vD-nocamera-ids.lumap
"$synth" -q -n 0 -o corpus/irradiance/vD-empty.lumap

python3 - <<'PY'
import struct

def f32(*v): return struct.pack('<%df' % len(v), *v)

# Irradiance maps of the newest version with an empty parameter header (its fields keep their
# defaults): 12 bytes, then 84-byte records.
def irradiance(name, samples, count=None):
    out = struct.pack('<III', 0xD0000, len(samples) if count is None else count, 0)
    for (x, y, z), r2 in samples:
        rec = f32(x, y, z, 0, 0, 1, r2, 1, 0.01) + bytes(84 - 36)
        out += rec
    open(name, 'wb').write(out)

# Positions spanning more than the float range along x, and a denormal apart: 17 samples, more
# than a kd-tree leaf holds, so the split search runs on them.
irradiance('regressions/irradiance/span-beyond-float.lumap',
           [((-3e38 if i % 2 else 3e38, 0, 0), 0.01) for i in range(17)])
irradiance('regressions/irradiance/span-denormal.lumap',
           [((0, 0, 0), 0.01)] * 16 + [((1e-40, 0, 0), 0.01)])
# Every kind of sample no index can place, among placeable ones.
nan, inf = float('nan'), float('inf')
irradiance('regressions/irradiance/unplaceable.lumap',
           [((nan, 0, 0), 1), ((0, inf, 0), 1), ((0, 0, 0), 0), ((0, 0, 0), -1),
            ((0, 0, 0), nan), ((0, 0, 0), inf)] + [((i, 0, 0), 1) for i in range(20)])
# A count of 2^31 in a short file must fail fast, not allocate for the count.
irradiance('regressions/irradiance/huge-count.lumap', [((0, 0, 0), 1)], count=0x80000000)

# Light caches: version word, sample count, records. Record words per version: position,
# normal, radiusSquared, then the value groups (and ids in 5, the memory layout in 6).
SIZES = {1: 44, 2: 60, 3: 72, 4: 80, 5: 120, 6: 120}
def light(name, version, samples, count=None):
    out = struct.pack('<Ii', version << 16, len(samples) if count is None else count)
    for i, ((x, y, z), r2) in enumerate(samples):
        rec = bytearray(SIZES[version])
        rec[0:28] = f32(x, y, z, 0, 0, 1, r2)
        rec[28:44] = f32(0.5, 0.25, 0.125, 1)
        if version >= 3:
            rec[60:72] = f32(0, 0, 1)
        if version >= 5:
            rec[112:116] = struct.pack('<I', i + 1)
        out += bytes(rec)
    open(name, 'wb').write(out)

seed = [((0, 0, 0), 0.25), ((1, 0, 0), 0.25), ((0, 1, 0), 1.0)]
for v in range(1, 7):
    light('corpus/lightcache/v%d.lulmap' % v, v, seed)
light('corpus/lightcache/v6-empty.lulmap', 6, [])
light('regressions/lightcache/span-beyond-float.lulmap', 6,
      [((-3e38 if i % 2 else 3e38, 0, 0), 0.01) for i in range(17)])
light('regressions/lightcache/span-denormal.lulmap', 6,
      [((0, 0, 0), 0.01)] * 16 + [((1e-40, 0, 0), 0.01)])
light('regressions/lightcache/unplaceable.lulmap', 6,
      [((nan, 0, 0), 1), ((0, inf, 0), 1), ((0, 0, 0), 0), ((0, 0, 0), -1),
       ((0, 0, 0), nan), ((0, 0, 0), inf)] + [((i, 0, 0), 1) for i in range(20)])
light('regressions/lightcache/huge-count.lulmap', 6, seed[:1], count=0x7FFFFFFF)
PY
