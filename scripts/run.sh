#!/usr/bin/env bash
# The main job: installs what is missing, builds in Release, synthesises the sample scene (two
# overlapping camera frames of a room) as irradiance maps and as light caches, merges the maps
# incrementally and the light caches both plainly and incrementally with the batch tool, reports
# and saves the results, converts the merged map to a PTS point list and a PLY point cloud,
# draws a picture of the merged light cache, and opens the viewer on the merged map when a
# display exists.
#
# CACHEVIEW_BUILD_DIR names an already configured build directory to use instead of build/ (it
# is brought up to date, but nothing is installed).
set -euo pipefail
cd "$(dirname "$0")/.."
targets=(--target cacheview cacheview-synth cacheview-render cacheview-export)
build=${CACHEVIEW_BUILD_DIR:-build}
if [ "$build" = build ]; then
  bash scripts/build.sh "${targets[@]}"
else
  cmake --build "$build" -j"$(nproc)" "${targets[@]}"
fi

cacheview=$build/src/app/cacheview
synth=$build/tools/cacheview-synth
render=$build/src/render/cacheview-render
out=out/sample-scene
mkdir -p "$out"

# Irradiance maps.
"$synth" --camera 0 --count 300000 --seed 1 -o "$out/frame0.lumap"
"$synth" --camera 1 --count 300000 --seed 2 -o "$out/frame1.lumap"

"$cacheview" -incremental -load "$out/frame0.lumap" -load "$out/frame1.lumap" -info \
  -save "$out/merged.lumap" -nodisplay
"$cacheview" -convert "$out/merged.lumap" "$out/merged.pts" -rgb
echo "PTS point list: $(wc -l < "$out/merged.pts") points in $out/merged.pts"
# The same samples as a PLY point cloud for point-cloud tools (CloudCompare and others).
"$build/tools/cacheview-export" "$out/merged.lumap" "$out/merged.ply"

# Light caches of the same two frames.
"$synth" --camera 0 --count 100000 --seed 1 -o "$out/frame0.lulmap"
"$synth" --camera 1 --count 100000 --seed 2 -o "$out/frame1.lulmap"

"$cacheview" -load "$out/frame0.lulmap" -load "$out/frame1.lulmap" \
  -save "$out/merged-plain.lulmap" -nodisplay
"$cacheview" -incremental -load "$out/frame0.lulmap" -load "$out/frame1.lulmap" \
  -save "$out/merged.lulmap" -nodisplay

# A light-cache file starts with its version and its sample count, 32-bit little-endian words.
samples() { od -An -tu4 -j4 -N4 "$1" | tr -d ' '; }
echo "Light caches: $(samples "$out/frame0.lulmap") + $(samples "$out/frame1.lulmap") samples;" \
  "merged plainly $(samples "$out/merged-plain.lulmap")," \
  "incrementally $(samples "$out/merged.lulmap") (the second frame's samples that the first" \
  "already covers are left out)"

# The merged light cache seen from the room's front wall, high up, so that both frames show.
"$render" --eye 0,-2.9,2.8 --target 0,2,0.4 --fov 100 "$out/merged.lulmap" "$out/merged-lulmap.png"

if [ -n "${DISPLAY:-}" ]; then
  "$cacheview" "$out/merged.lumap"
else
  echo "No display: the viewer was not started (run $cacheview $out/merged.lumap on a desktop)."
fi
