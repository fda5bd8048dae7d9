#!/bin/sh
# Makes samples/testcard.flv again: a moving test card with a tone and a beep each second, H.263 and MP3.
#
# usage: samples/make-testcard.sh [OUT.flv]
#
# One thread and the bit-exact flags keep clocks, versions and scheduling out of the bytes, so that the same
# ffmpeg gives the same file. The shipped file is of ffmpeg 5.1 (Debian 12). The rates are chosen for a file of a
# little over 262,144 bytes, so that it has more than one segment.
set -eu
out=${1:-"$(dirname "$0")/testcard.flv"}

ffmpeg -v error -nostdin -y \
  -f lavfi -i testsrc2=size=320x240:rate=25:duration=6 \
  -f lavfi -i sine=frequency=440:beep_factor=4:sample_rate=22050:duration=6 \
  -c:v flv1 -b:v 360k -maxrate 420k -bufsize 200k -g 25 -threads 1 \
  -c:a libmp3lame -b:a 56k -ac 1 \
  -flags +bitexact -fflags +bitexact -map_metadata -1 \
  -f flv "$out"
