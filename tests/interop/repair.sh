#!/bin/sh
# What repair makes of hurt files passes check, flvmeta, ffprobe and mediainfo without a remark, and ffmpeg decodes what
# wasn't hurt.
#
# usage: repair.sh FLVHOST SAMPLE
. "$(dirname "$0")/common.sh"

ffmpeg -v error -nostdin -f lavfi -i testsrc2=s=318x242:d=6:r=25 -f lavfi -i sine=d=6 -c:v libx264 -g 25 -c:a aac \
  -f flv "$work/avc.flv"

# sound FILE: nobody has a word against it, and all agree on its duration.
sound() {
  "$flvhost" check "$1" >"$work/said" || fail "$1: $(cat "$work/said")"
  grep -q ': sound (' "$work/said" || fail "$1: $(cat "$work/said")"
  remarks=$(flvmeta --check "$1" | grep -v '^0 error(s), 0 warning(s)$' || true)
  [ -z "$remarks" ] || fail "$1: flvmeta says: $remarks"
  remarks=$(ffprobe -v warning "$1" 2>&1)
  [ -z "$remarks" ] || fail "$1: ffprobe says: $remarks"
  mediainfo "$1" | grep -qi -e conformance -e truncated && fail "$1: mediainfo has remarks"
  facts "$1" | grep -q '^Flash Video, [56]... ms$' || fail "$1: mediainfo says: $(facts "$1")"
}

# repaired NAME: a hurt file, repaired in each way.
repaired() {
  name=$1
  for way in "" --keyframes; do
    "$flvhost" repair "$work/$name.flv" "$work/$name$way.out.flv" --force $way 2>/dev/null
    sound "$work/$name$way.out.flv"
  done
}

for film in "$sample" "$work/avc.flv"; do
  size=$(wc -c <"$film") half=$(($(wc -c <"$film") / 2))
  cp "$film" "$work/whole.flv"
  head -c $((size - 99)) "$film" >"$work/torn.flv"
  { head -c "$half" "$film"; head -c 999 /dev/urandom; tail -c +$((half + 1)) "$film"; } >"$work/junk.flv"
  { head -c "$half" "$film"; tail -c +$((half + 5000)) "$film"; } >"$work/hole.flv"
  { cat "$film"; head -c 99999 /dev/zero; } >"$work/behind.flv"
  for name in whole torn junk hole behind; do repaired "$name"; done
  "$flvhost" repair "$work/whole.flv" - 2>/dev/null >"$work/piped.out.flv"
  sound "$work/piped.out.flv"
  decodes "$work/whole.out.flv"
done

# The picture and the sound are what they were.
packets "$work/whole.out.flv" >"$work/got"
packets "$work/avc.flv" | diff - "$work/got" || fail "other packets than before"
