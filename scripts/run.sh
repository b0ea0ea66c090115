#!/usr/bin/env bash
# The main job: installs what is missing, builds in Release, synthesises the sample scene (two
# overlapping camera frames of a room), merges them incrementally with the batch tool, reports and
# saves the result, converts it to a PTS point list, and opens the viewer when a display exists.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh --target cacheview cacheview-synth

cacheview=build/src/app/cacheview
synth=build/tools/cacheview-synth
out=out/sample-scene
mkdir -p "$out"

"$synth" --camera 0 --count 300000 --seed 1 -o "$out/frame0.lumap"
"$synth" --camera 1 --count 300000 --seed 2 -o "$out/frame1.lumap"

"$cacheview" -incremental -load "$out/frame0.lumap" -load "$out/frame1.lumap" -info \
  -save "$out/merged.lumap" -nodisplay
"$cacheview" -convert "$out/merged.lumap" "$out/merged.pts" -rgb
echo "PTS point list: $(wc -l < "$out/merged.pts") points in $out/merged.pts"

if [ -n "${DISPLAY:-}" ]; then
  "$cacheview" "$out/merged.lumap"
else
  echo "No display: the viewer was not started (run $cacheview $out/merged.lumap on a desktop)."
fi
