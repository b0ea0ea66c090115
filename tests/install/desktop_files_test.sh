#!/usr/bin/env bash
# The desktop integration as a desktop sees it: the entry passes desktop-file-validate, the MIME
# package is well-formed XML, and once update-mime-database has compiled it into a data
# directory of its own, xdg-mime names the right type for a map of each kind: by name, and for
# an irradiance map of a current version by its contents alone.
# Usage: desktop_files_test.sh <build dir> <source dir> <cacheview-synth>
set -euo pipefail
build=$1 source=$2 synth=$3
mkdir -p "$build/test-tmp"
data=$(mktemp -d "$build/test-tmp/xdg-XXXXXX")
trap 'rm -rf "$data"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

desktop-file-validate "$source/data/cacheview.desktop"
grep -qx 'Exec=cacheview %f' "$source/data/cacheview.desktop" || fail "Exec line"
xmllint --noout "$source/data/cacheview-mime.xml"

# Only this directory: the system's own database stays out of the answer for our types.
mkdir -p "$data/share/mime/packages" "$data/home"
cp /usr/share/mime/packages/freedesktop.org.xml "$data/share/mime/packages/"
cp "$source/data/cacheview-mime.xml" "$data/share/mime/packages/cacheview.xml"
XDG_DATA_DIRS="$data/share" update-mime-database "$data/share/mime"
"$synth" -q -n 50 "$data/frame.lumap"
"$synth" -q -n 50 "$data/frame.lulmap"
cp "$data/frame.lumap" "$data/renamed.dat"

filetype() {
  # xdg-mime asks gio (as on GNOME), which reads the databases of XDG_DATA_DIRS.
  XDG_DATA_DIRS="$data/share" XDG_DATA_HOME="$data/home" XDG_CURRENT_DESKTOP=GNOME \
    xdg-mime query filetype "$1"
}
check() {
  local got
  got=$(filetype "$1")
  [ "$got" = "$2" ] || fail "$(basename "$1"): $got, not $2"
  echo "$(basename "$1"): $got"
}
check "$data/frame.lumap" application/x-lumap
check "$data/frame.lulmap" application/x-lulmap
check "$data/renamed.dat" application/x-lumap
