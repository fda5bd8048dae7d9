#!/bin/sh
# Holds a built library or program against the hardening that the build asks for: stack protector, fortified calls,
# control-flow marks, addresses that are read-only once they are known, no stack that can be executed, code that can
# be loaded anywhere.
#
# usage: hardening.sh FILE...
set -eu
export LC_ALL=C
bad=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for file in "$@"; do
  segments=$(readelf -Wl "$file") dynamic=$(readelf -Wd "$file") symbols=$(nm -D "$file")
  objdump -d --no-show-raw-insn "$file" | grep endbr64 >"$work/code" || true

  wants() {  # wants WHAT TEXT PATTERN
    echo "$2" | grep -qE "$3" || { echo "$file: $1 is missing"; bad=1; }
  }
  wants "relocation read-only" "$segments" 'GNU_RELRO'
  wants "binding at load time" "$dynamic" '\(FLAGS(_1)?\).*NOW'
  wants "a stack that can't be executed" "$segments" 'GNU_STACK.* RW +0x'
  wants "position independence" "$(readelf -Wh "$file")" 'Type: +DYN'
  wants "the stack protector" "$symbols" '__stack_chk_fail'
  wants "fortified calls" "$symbols" '__[a-z]+_chk(@|$)'

  # What others call by its address begins with the mark of a branch target. (Boost's own context switch has none,
  # so the file as a whole doesn't claim it.)
  nm -D --defined-only "$file" | awk '$2 ~ /[TW]/ {sub(/^0*/, "", $1); print $1, $3}' >"$work/entries"
  [ -s "$work/entries" ] || { echo "$file: no entries"; bad=1; }
  while read -r address name; do
    grep -qE "^ *$address:.*endbr64" "$work/code" || { echo "$file: no branch mark at $name"; bad=1; }
  done <"$work/entries"
done
exit $bad
