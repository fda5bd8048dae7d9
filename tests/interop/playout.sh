#!/bin/sh
# ffprobe finds in a play-out the packets of the file that was played, each with its time and its bytes; ffmpeg
# decodes it without a complaint; flvmeta finds no error; mediainfo names the codecs and the duration.
#
# usage: playout.sh FLVHOST SAMPLE
set -eu
flvhost=$1 sample=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

packets() {
  ffprobe -v error -show_packets -show_data_hash crc32 -show_entries packet=codec_type,dts,size,flags,data_hash \
    -of compact "$1"
}
packets "$sample" >"$work/all"

# same NAME FROM TO ARGUMENT...: what is played with the arguments holds the packets of the sample from FROM ms to
# before TO ms.
same() {
  name=$1 from=$2 to=$3
  shift 3
  "$flvhost" play "$sample" "$@" -o "$work/$name.flv" 2>/dev/null
  packets "$work/$name.flv" >"$work/got"
  awk -F'dts=' -v from="$from" -v to="$to" '{time = $2 + 0} time >= from && time < to' "$work/all" >"$work/wanted"
  [ "$(wc -l <"$work/wanted")" -gt 50 ] || { echo "$name: too few packets to compare"; exit 1; }
  diff "$work/wanted" "$work/got" || { echo "$name: other packets than the sample's"; exit 1; }
  complaints=$(ffmpeg -v warning -nostdin -i "$work/$name.flv" -f null - 2>&1)
  [ -z "$complaints" ] || { echo "$name: $complaints"; exit 1; }
  # A piece keeps the times of the file it comes from, which flvmeta counts as an error.
  errors=$(flvmeta --check --level=error "$work/$name.flv" | grep ' error E' | grep -v 'E40019.* found instead' || true)
  [ "$from" -gt 0 ] || flvmeta --check --quiet "$work/$name.flv"
  [ -z "$errors" ] || { echo "$name: $errors"; exit 1; }
  echo "$name: $(wc -l <"$work/got") packets"
}

same whole 0 7000
same singly 0 7000 --set EnableAggMsgs=false
same piece 2050 5000 --from 2.5 --to 5
"$flvhost" play "$sample" -o - 2>/dev/null | cmp - "$work/whole.flv"

facts=$(mediainfo --Output='General;%Format%, %Duration% ms' "$work/whole.flv"
  mediainfo --Output='Video;%Format% %Width%x%Height%' "$work/whole.flv"
  mediainfo --Output='Audio;%Format% %SamplingRate%' "$work/whole.flv")
wanted="Flash Video, 6060 ms
Sorenson Spark 320x240
MPEG Audio 22050"
[ "$facts" = "$wanted" ] || { echo "mediainfo says: $facts"; exit 1; }
