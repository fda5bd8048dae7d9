# Shared by the tests of this folder: flvhost and the sample as arguments, a folder to work in, and what ffprobe
# makes of a file.
set -eu
flvhost=$1 sample=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$*"
  exit 1
}

# packets FILE: one line for each packet, with its time, size and a hash of its bytes.
packets() {
  ffprobe -v error -show_packets -show_data_hash crc32 -show_entries packet=codec_type,dts,size,flags,data_hash \
    -of compact "$1"
}

# errors FILE: what flvmeta calls an error, less those that match the pattern of the second argument.
errors() { flvmeta --check --level=error "$1" | grep ' error E' | grep -vE "${2:-^$}" || true; }

# decodes FILE: ffmpeg decodes it to the end without a word.
decodes() {
  complaints=$(ffmpeg -v warning -nostdin -i "$1" -f null - 2>&1)
  [ -z "$complaints" ] || fail "$1: $complaints"
}

# facts FILE: what mediainfo tells.
facts() {
  mediainfo --Output='General;%Format%, %Duration% ms' "$1"
  mediainfo --Output='Video;%Format% %Width%x%Height%' "$1"
  mediainfo --Output='Audio;%Format% %SamplingRate%' "$1"
}

packets "$sample" >"$work/all"
