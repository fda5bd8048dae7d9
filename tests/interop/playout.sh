#!/bin/sh
# ffprobe finds in a play-out the packets of the file that was played, each with its time and its bytes; ffmpeg
# decodes it without a complaint; flvmeta finds no error; mediainfo names the codecs and the duration.
#
# usage: playout.sh FLVHOST SAMPLE
. "$(dirname "$0")/common.sh"

# same NAME FROM TO ARGUMENT...: what is played with the arguments holds the packets of the sample from FROM ms to
# before TO ms.
same() {
  name=$1 from=$2 to=$3
  shift 3
  "$flvhost" play "$sample" "$@" -o "$work/$name.flv" 2>/dev/null
  packets "$work/$name.flv" >"$work/got"
  awk -F'dts=' -v from="$from" -v to="$to" '{time = $2 + 0} time >= from && time < to' "$work/all" >"$work/wanted"
  [ "$(wc -l <"$work/wanted")" -gt 50 ] || fail "$name: too few packets to compare"
  diff "$work/wanted" "$work/got" || fail "$name: other packets than the sample's"
  decodes "$work/$name.flv"
  found=$(errors "$work/$name.flv")
  [ -z "$found" ] || fail "$name: $found"
  echo "$name: $(wc -l <"$work/got") packets"
}

same whole 0 7000
same singly 0 7000 --set EnableAggMsgs=false
same piece 2050 5000 --from 2.5 --to 5
"$flvhost" play "$sample" -o - 2>/dev/null | cmp - "$work/whole.flv"

told=$(facts "$work/whole.flv")
[ "$told" = "Flash Video, 6060 ms
Sorenson Spark 320x240
MPEG Audio 22050" ] || fail "mediainfo says: $told"
