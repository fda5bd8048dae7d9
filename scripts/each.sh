#!/bin/sh
# Runs each program of a folder whose name fits, with the given arguments; stops at the first that fails, and fails
# if there is none.
#
# usage: scripts/each.sh FOLDER PATTERN [ARGUMENT...]
set -eu
programs=$(find "$1" -maxdepth 1 -type f -executable -name "$2" | sort)
[ -n "$programs" ] || { echo "no program $2 in $1" >&2; exit 1; }
shift 2
for program in $programs; do
  echo "== $(basename "$program")"
  "$program" "$@"
done
