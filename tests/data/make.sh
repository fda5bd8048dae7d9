#!/bin/sh
# Makes the metadata files of this folder anew: what ffmpeg, flvmeta and yamdi write at the head of an FLV file of
# 2,000 key frames. Only the file header and the first tag are kept, which is the script data.
#
# usage: tests/data/make.sh        needs ffmpeg, flvmeta and yamdi
set -eu
cd "$(dirname "$0")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

encode() {  # encode FILE FLAGS...
  file=$1
  shift
  ffmpeg -v error -f lavfi -i color=size=16x16:rate=10:duration=200 -c:v flv1 -g 1 -bitexact "$@" "$work/$file"
}

keep_metadata() {  # keep_metadata FILE: 9 header bytes, a size field, a tag header, its data, a size field
  size=$(od -An -tu1 -j 14 -N 3 "$work/$1" | awk '{print $1 * 65536 + $2 * 256 + $3}')
  head -c $((9 + 4 + 11 + size + 4)) "$work/$1" >"$1"
}

encode ffmpeg.flv
encode ffmpeg-index.flv -flvflags add_keyframe_index
yamdi -i "$work/ffmpeg.flv" -o "$work/yamdi.flv" -c yamdi
flvmeta --update --add=title=Example "$work/ffmpeg.flv" "$work/flvmeta.flv"

for file in ffmpeg.flv ffmpeg-index.flv yamdi.flv flvmeta.flv; do keep_metadata "$file"; done
