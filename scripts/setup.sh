#!/usr/bin/env bash
# Installs the Debian packages cacheview needs (only those missing) and configures a Release build.
# Usage: scripts/setup.sh [build-dir]
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libwxgtk3.2-dev libglib2.0-dev
  libgl-dev libglu1-mesa-dev libgl1-mesa-dri libegl-dev libegl-mesa0
  libgtest-dev libgmock-dev libbenchmark-dev
  xvfb xauth xdotool xclip imagemagick python3
  # clang with its runtime libraries (libFuzzer and the sanitizers): the fuzz harnesses
  clang libclang-rt-dev
  # PNG output; installation, desktop integration, man pages and the Debian package (ctest -L
  # install); CloudCompare, a real reader of the PLY export (ctest -L export)
  libpng-dev dpkg-dev lintian desktop-file-utils shared-mime-info xdg-utils libglib2.0-bin
  libxml2-utils groff-base cloudcompare
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
