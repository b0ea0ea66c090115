#!/usr/bin/env bash
# Installs what is missing, then configures and builds cacheview in Release into build/.
# Extra arguments are passed to the build (for example: --target cacheview).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" "$@"
