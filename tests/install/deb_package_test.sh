#!/usr/bin/env bash
# Builds the Debian package with CPack and has lintian check it: no errors. Shows the package's
# control fields and its dependencies as dpkg-shlibdeps found them.
# Usage: deb_package_test.sh <build dir>
set -euo pipefail
build=$1
mkdir -p "$build/test-tmp"
out=$(mktemp -d "$build/test-tmp/deb-XXXXXX")
trap 'rm -rf "$out"' EXIT
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$out" >/dev/null
deb=$(ls "$out"/*.deb)
dpkg-deb --field "$deb" Package Version Section Depends
# The viewer needs no particular user: lintian runs as root here only because the test does.
lintian --fail-on error --allow-root --tag-display-limit 0 "$deb"
