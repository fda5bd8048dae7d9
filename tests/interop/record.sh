#!/bin/sh
# A live stream of ffmpeg's, recorded: ffprobe finds its packets again, flvmeta, ffprobe and mediainfo print the
# duration that the flushes put into the metadata, and flvmeta has exactly one complaint, the flag for data tags that
# recording sets in the header.
#
# usage: record.sh FLVHOST SAMPLE
. "$(dirname "$0")/common.sh"

# check FILE PACKETS MEDIAINFO'S-DURATION: the sample's duration and packets are in the recording.
check() {
  packets "$1" | diff "$2" - || fail "$1: other packets than what came"
  decodes "$1"
  found=$(errors "$1")
  [ "$found" = "0x00000004: error E11007: header reserved flags are not zero" ] || fail "$1: flvmeta says: $found"
  flvmeta --json "$1" | grep -q '"duration":6.034,' || fail "$1: flvmeta has another duration"
  duration=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$1")
  [ "$duration" = 6.034000 ] || fail "$1: ffprobe says $duration s"
  told=$(facts "$1")
  [ "$told" = "Flash Video, 6060 ms
Sorenson Spark 320x240
MPEG Audio 22050" ] || fail "$1: mediainfo says: $told"
}

live() { ffmpeg -v error -nostdin -i "$sample" -c copy -f flv - 2>/dev/null; }  # To a pipe: it can't know the duration.

live | "$flvhost" record "$work/live.flv" --keep-metadata --flush-every 0.2s --backup "$work/mirror.flv" 2>/dev/null
check "$work/live.flv" "$work/all"
cmp "$work/live.flv" "$work/mirror.flv"

# Every key that a flush brings up to date is there, and the player that seeks to the end is told if it can.
live | "$flvhost" record "$work/reserved.flv" 2>/dev/null
check "$work/reserved.flv" "$work/all"
flvmeta --json "$work/reserved.flv" | grep -q '"canSeekToEnd":false' || fail "no canSeekToEnd"

# What every encoder sends: frames, times and set-up records come back as they were.
ffmpeg -v error -nostdin -f lavfi -i testsrc2=duration=4:rate=25 -f lavfi -i sine=duration=4 -c:v libx264 -g 25 -c:a aac \
  "$work/source.mp4"
ffmpeg -v error -nostdin -i "$work/source.mp4" -c copy -f flv - 2>/dev/null | "$flvhost" record "$work/h264.flv" 2>/dev/null
decodes "$work/h264.flv"
frames() { ffmpeg -v error -nostdin -i "$1" -map 0:v -f framemd5 - | grep -v '^#' | awk -F, '{print $6}'; }
frames "$work/source.mp4" >"$work/source.md5"
frames "$work/h264.flv" | diff "$work/source.md5" - || fail "other frames than the source's"
"$flvhost" play "$work/h264.flv" --from 2.5 -o "$work/clip.flv" 2>/dev/null
tail -n 50 "$work/source.md5" >"$work/tail.md5"
frames "$work/clip.flv" | diff "$work/tail.md5" - || fail "the clip has other frames than the source"
if ffmpeg -v error -nostdin -i "$work/source.mp4" -an -c copy -f flv - 2>/dev/null |
  "$flvhost" record "$work/refused.flv" --codecs classic 2>"$work/told"; then
  fail "recorded H.264"
fi
grep -q 'H.264 is left out' "$work/told" || fail "no word of what is left out"
[ ! -e "$work/refused.flv" ] || fail "a file without a picture is left"
