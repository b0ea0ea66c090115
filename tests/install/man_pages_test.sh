#!/usr/bin/env bash
# Every man page renders without a warning, and documents the options its program's --help
# lists.
# Usage: man_pages_test.sh <source dir> [<program>...]
set -euo pipefail
source=$1
shift
status=0
for page in "$source"/man/*.1; do
  warnings=$(groff -man -Tutf8 -ww -z "$page" 2>&1)
  if [ -n "$warnings" ]; then
    echo "FAIL: $(basename "$page"):" >&2
    echo "$warnings" >&2
    status=1
  fi
done
# Each long option of a companion program's --help appears in its page (as \-\-name).
for program in "$@"; do
  page="$source/man/$(basename "$program").1"
  [ -f "$page" ] || { echo "FAIL: no man page for $program" >&2; status=1; continue; }
  text=$(groff -man -Tascii -P-c -P-b -P-u "$page" 2>/dev/null)
  for option in $("$program" --help | grep -oE -- '--[a-z][a-z-]*' | sort -u); do
    grep -qF -- "$option" <<<"$text" || { echo "FAIL: $page lacks $option" >&2; status=1; }
  done
done
exit $status
