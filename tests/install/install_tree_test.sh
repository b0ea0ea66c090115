#!/usr/bin/env bash
# Installs the build into a fresh prefix and checks the tree: the programs, the viewer module
# where the installed cacheview finds it, every man page, the desktop entry, the MIME package,
# the icon and the package documents; then runs the installed programs.
# Usage: install_tree_test.sh <build dir> <source dir>
set -euo pipefail
build=$1 source=$2
mkdir -p "$build/test-tmp"
prefix=$(mktemp -d "$build/test-tmp/install-XXXXXX")
trap 'rm -rf "$prefix"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null

for f in bin/cacheview bin/cacheview-render bin/cacheview-synth bin/cacheview-export; do
  [ -x "$prefix/$f" ] || fail "$f is not installed"
done
for page in "$source"/man/*.1; do
  name=$(basename "$page")
  installed="$prefix/share/man/man1/$name.gz"
  [ -f "$installed" ] || fail "man page $name is not installed"
  cmp -s <(gzip -dc "$installed") "$page" || fail "$installed is not $page"
  [ -x "$prefix/bin/${name%.1}" ] || fail "man page $name has no program"
done
for f in share/applications/cacheview.desktop share/mime/packages/cacheview.xml \
         share/icons/hicolor/scalable/apps/cacheview.svg share/doc/cacheview/copyright \
         share/doc/cacheview/changelog.gz; do
  [ -f "$prefix/$f" ] || fail "$f is not installed"
done
# No file may keep a path of the build tree (RUNPATH and the like).
if grep -rlF "$build" "$prefix" >/dev/null; then
  fail "installed files refer to the build tree: $(grep -rlF "$build" "$prefix" | head -3)"
fi

work="$prefix/work"
mkdir "$work"
"$prefix/bin/cacheview-synth" -q -n 500 "$work/m.lumap"
"$prefix/bin/cacheview-export" -q "$work/m.lumap" "$work/m.ply"
head -c 3 "$work/m.ply" | grep -q ply || fail "the installed export wrote no PLY"
"$prefix/bin/cacheview-render" --quiet -b sw -s 64x48 "$work/m.lumap" "$work/m.png"
[ -s "$work/m.png" ] || fail "the installed render wrote no picture"
"$prefix/bin/cacheview" -load "$work/m.lumap" -save "$work/n.lumap" -nodisplay >/dev/null
cmp -s "$work/m.lumap" "$work/n.lumap" || fail "the installed cacheview changed the map"

# The installed cacheview finds its viewer module: without a display it says so, rather than
# that the viewer is not in the build.
if [ -f "$prefix/lib/cacheview/cacheview-viewer.so" ]; then
  set +e
  out=$(env -u DISPLAY -u WAYLAND_DISPLAY "$prefix/bin/cacheview" "$work/m.lumap" 2>&1)
  status=$?
  set -e
  [ $status -eq 4 ] || fail "installed cacheview without a display: status $status: $out"
  case $out in *"not part of this build"*) fail "the installed cacheview does not find its viewer: $out";; esac
fi
echo "installed tree in order"
