#!/bin/sh
# What a browser draws of a report are the figures of the file: bytes of each kind, key frames, damage, and what it tells
# of the time that it is asked for. The page needs nothing from outside.
#
# usage: report.sh FLVHOST SAMPLE
. "$(dirname "$0")/common.sh"

# drawn PAGE [#HASH]: the document as it stands after its script has run.
drawn() {
  timeout 120 chromium --headless --no-sandbox --disable-gpu --user-data-dir="$work/profile" \
    --virtual-time-budget=5000 --dump-dom "file://$1${2:-}" 2>/dev/null
}

# sum FILE KIND FROM TO: the bytes of its tags of the kind between two times in ms.
sum() {
  "$flvhost" tags --json "$1" | sed -n "s/.*\"time\":\([0-9]*\),.*\"kind\":\"$2\",\"size\":\([0-9]*\).*/\1 \2/p" |
    awk -v from="$3" -v to="$4" '$1 >= from && $1 < to { bytes += $2 } END { printf "%d\n", bytes }'
}

half=$(($(wc -c <"$sample") / 2))
{ head -c "$half" "$sample"; head -c 999 /dev/zero; tail -c +$((half + 1)) "$sample"; } >"$work/hurt.flv"
for film in "$sample" "$work/hurt.flv"; do
  "$flvhost" report "$film" -o "$work/report.html" --force
  grep -oE '(src|href)=|url\(|@import|fetch\(' "$work/report.html" && fail "the page asks for more"
  drawn "$work/report.html" >"$work/page"
  for kind in video audio data; do
    grep -q "data-kind=\"$kind\" data-bytes=\"$(sum "$film" $kind 0 4294967296)\"" "$work/page" || fail "$film: other $kind"
  done
  keys=$("$flvhost" index "$film" | wc -l)
  grep -q "data-keys=\"$keys\"" "$work/page" || fail "$film: not $keys key frames"
  "$flvhost" check --json "$film" >"$work/checked" || true
  [ "$(grep -o 'data-code=' "$work/page" | wc -l)" = "$(grep -c '"time"' "$work/checked")" ] || fail "$film: other findings"

  drawn "$work/report.html" '#t=2.5' >"$work/page"
  bytes=$(sum "$film" video 2400 2600 | sed 's/\(...\)$/,\1/')
  grep -q "0:02.400 – 0:02.600.*($bytes bytes)" "$work/page" || fail "$film: other figures at 2.5 s than $bytes bytes"
done
