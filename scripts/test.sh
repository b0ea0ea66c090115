#!/usr/bin/env bash
# Installs what is missing, builds everything in Release and runs every test; then builds the
# thread library's tests, the parallel incremental merge's and the threaded drawing's with
# ThreadSanitizer and runs them too; then the map code with AddressSanitizer and
# UndefinedBehaviorSanitizer: the unit tests of io, irradiance, lightcache and app once, and the
# fuzz harnesses over the seed corpus and every regression input (fuzz/).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
ctest --test-dir build --output-on-failure -j"$(nproc)" --timeout 600

cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCACHEVIEW_ONLY_THREADS=ON \
  -DCACHEVIEW_BUILD_BENCH=OFF -DCMAKE_CXX_FLAGS="-fsanitize=thread" \
  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=thread" >/dev/null
cmake --build build-tsan -j"$(nproc)"
TSAN_OPTIONS="halt_on_error=1" ctest --test-dir build-tsan --output-on-failure -j"$(nproc)" --timeout 600

# The incremental merges, the kd-tree's build and the large files' reading on several threads,
# and the threaded software drawing under ThreadSanitizer too: their own tests only.
cmake -S . -B build-tsan-merge -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCACHEVIEW_BUILD_VIEWER=OFF \
  -DCACHEVIEW_BUILD_BENCH=OFF -DCMAKE_CXX_FLAGS="-fsanitize=thread" \
  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=thread" >/dev/null
cmake --build build-tsan-merge -j"$(nproc)" --target irradiance_tests lightcache_tests render_tests
TSAN_OPTIONS="halt_on_error=1" build-tsan-merge/src/irradiance/irradiance_tests \
  --gtest_filter='ParallelIncrementalMerge.*:KdTreeAgainstBruteForce.LargeRebuild:IrradianceFile.LargeFilesReadOnThreadsAsOnOne'
# The write side of a multi-threaded map's lock holds a mutex for every thread slot, more than
# the 64 at once that the sanitizer's deadlock detector can follow: races only, for the merges
# into such a map.
TSAN_OPTIONS="halt_on_error=1 detect_deadlocks=0" build-tsan-merge/src/irradiance/irradiance_tests \
  --gtest_filter='IncrementalAdd.*'
TSAN_OPTIONS="halt_on_error=1" build-tsan-merge/src/lightcache/lightcache_tests \
  --gtest_filter='LightMerge.IncrementalOnEveryThreadCount*'
# The software rasterizer drawing and replaying one frame on several threads.
TSAN_OPTIONS="halt_on_error=1" build-tsan-merge/src/render/render_tests \
  --gtest_filter='ThreadedSoftwareDrawing.*:DrawingTest.ThreadedDrawing*:DrawingTest.SevenSamples*'

asan_targets=(io_tests irradiance_tests lightcache_tests app_tests fuzz_irradiance_reader
  fuzz_irradiance_merge fuzz_pts_lines fuzz_lightcache_reader fuzz_lightcache_merge)
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1" \
  -DCACHEVIEW_BUILD_VIEWER=OFF \
  -DCACHEVIEW_BUILD_BENCH=OFF -DCACHEVIEW_BUILD_FUZZ=ON \
  -DCMAKE_CXX_FLAGS="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer" \
  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" >/dev/null
cmake --build build-asan -j"$(nproc)" --target "${asan_targets[@]}"
ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1" \
  ctest --test-dir build-asan -L '^(io|irradiance|lightcache|app|fuzz)$' --output-on-failure \
  -j"$(nproc)" --timeout 600
