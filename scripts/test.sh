#!/usr/bin/env bash
# Installs what is missing, builds everything in Release and runs every test; then builds the
# thread library's tests with ThreadSanitizer and runs them too.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
ctest --test-dir build --output-on-failure -j"$(nproc)" --timeout 600

cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCACHEVIEW_ONLY_THREADS=ON \
  -DCACHEVIEW_BUILD_BENCH=OFF -DCMAKE_CXX_FLAGS="-fsanitize=thread" \
  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=thread" >/dev/null
cmake --build build-tsan -j"$(nproc)"
TSAN_OPTIONS="halt_on_error=1" ctest --test-dir build-tsan --output-on-failure -j"$(nproc)" --timeout 600
