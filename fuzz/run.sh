#!/usr/bin/env bash
# A longer hunt: builds the fuzz harnesses with clang's libFuzzer, ASan and UBSan in build-fuzz
# and runs each for N minutes (default 5) from the seed corpus and the regression inputs, one
# after the other, on -jobs workers each. New inputs the fuzzer finds go to build-fuzz/corpus/<harness>
# (kept between runs; not the repository's corpus); a failing input is written as
# build-fuzz/findings/<harness>/crash-*, and the script ends with status 1. Minimise a finding
# with `build-fuzz/fuzz/fuzz_<harness> -minimize_crash=1 <input>` and keep the result in
# fuzz/regressions/<kind>/ so that CI replays it.
#
# Memory: every run is limited to 64 MiB per allocation and 1 GiB in all; a map's storage blocks
# are under 3 MiB, so only an allocation that a file's size does not justify trips the limit.
# Usage: fuzz/run.sh [minutes] [harness...]   (0 minutes: run each over its inputs once)
set -euo pipefail
cd "$(dirname "$0")/.."
root="$(pwd)"
minutes="${1:-5}"
shift || true
harnesses=("$@")
[ ${#harnesses[@]} -eq 0 ] &&
  harnesses=(irradiance_reader lightcache_reader irradiance_merge lightcache_merge pts_lines)
jobs="${FUZZ_JOBS:-1}"
budget=(-max_total_time=$((minutes * 60)))
[ "$minutes" -eq 0 ] && budget=(-runs=0)

cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DCACHEVIEW_BUILD_FUZZ=ON -DCACHEVIEW_BUILD_TESTS=OFF -DCACHEVIEW_BUILD_BENCH=OFF \
  -DCACHEVIEW_BUILD_VIEWER=OFF \
  -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all" \
  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" >/dev/null
cmake --build build-fuzz -j"$(nproc)" --target $(printf 'fuzz_%s ' "${harnesses[@]}")

status=0
for h in "${harnesses[@]}"; do
  case "$h" in
    irradiance_* | pts_*) kind=irradiance ;;
    *) kind=lightcache ;;
  esac
  out="$root/build-fuzz/findings/$h"
  mkdir -p "$root/build-fuzz/corpus/$h" "$out"
  parallel=()
  [ "$jobs" -gt 1 ] && parallel=(-jobs="$jobs" -workers="$jobs")
  echo "== $h: $minutes min"
  # Run in the findings folder: parallel workers write their logs (fuzz-N.log) where they start.
  (cd "$out" && UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    "$root/build-fuzz/fuzz/fuzz_$h" "$root/build-fuzz/corpus/$h" "$root/fuzz/corpus/$kind" \
    "$root/fuzz/regressions/$kind" "${budget[@]}" -max_len=65536 -malloc_limit_mb=64 \
    -rss_limit_mb=1024 -timeout=10 -print_final_stats=1 "${parallel[@]}" \
    -artifact_prefix="$out/" >"$out/log.txt" 2>&1) || true
  grep -hE '^#[0-9]+ *(INITED|DONE)|^stat::|ERROR|check failed' "$out/log.txt" "$out"/fuzz-*.log \
    2>/dev/null || true
  if [ -n "$(find "$out" \( -name 'crash-*' -o -name 'leak-*' -o -name 'oom-*' \
      -o -name 'timeout-*' \) -print -quit)" ]; then
    echo "== $h: FINDINGS in build-fuzz/findings/$h"
    status=1
  fi
done
exit $status
