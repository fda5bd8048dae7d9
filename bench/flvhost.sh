#!/bin/bash
# Times flvhost beside ffmpeg, ffprobe and flvmeta, whole processes on one warm file: CPU seconds (user and system),
# page faults, and the ratio to the fastest of the others.
#
# usage: bench/flvhost.sh [FLVHOST [MIB [FILE]]]      FILE: what the long file is made of; default: the sample
set -euo pipefail
cd "$(dirname "$0")/.."
flvhost=$(realpath "${1:-build/release/host/flvhost}")
mib=${2:-1024}
source=$(realpath "${3:-samples/testcard.flv}")
rounds=5

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# Doubled by appending it to itself until it is long enough.
"$flvhost" record film.flv <"$source" 2>/dev/null
while [ "$(stat -c %s film.flv)" -lt $((mib << 20)) ]; do
  cp film.flv half.flv
  "$flvhost" record film.flv --append <half.flv 2>/dev/null
done
rm -f half.flv
cat film.flv >/dev/null
seconds=$("$flvhost" info --json film.flv | awk '/"duration"/ {found = 1} found && /"ms"/ {print int($2 / 1000); exit}')
from=$((seconds / 2)) to=$((seconds / 2 + 60))

# cpu COMMAND...: the least CPU seconds of some rounds; "-" if the command fails.
cpu() {
  local round best=
  for ((round = 0; round < rounds; ++round)); do
    /usr/bin/time -o time -f '%U %S %R' "$@" >/dev/null 2>&1 </dev/null || { echo "- -"; return; }
    best=$(awk -v best="$best" '{sum = $1 + $2; if (best == "" || sum < best) best = sum} END {print best}' time)
  done
  echo "$best $(awk '{print $3}' time)"
}

# row NAME OURS -- NAME COMMAND [-- NAME COMMAND]...: one line a peer.
row() {
  local name=$1 command=$2 ours faults peer time
  shift 2
  read -r ours faults < <(cpu bash -c "$command")
  while [ $# -gt 0 ]; do
    peer=$2
    read -r time _ < <(cpu bash -c "$3")
    awk -v n="$name" -v o="$ours" -v f="$faults" -v p="$peer" -v t="$time" 'BEGIN {
      ratio = t == "-" ? "-" : t + 0 == 0 ? "(too short)" : sprintf("%.2f", o / t)
      printf "%-16s %8s s %8s faults   %-10s %8s s   ratio %s\n", n, o, f, p, t, ratio}'
    shift 3
  done
}

echo "$(stat -c %s film.flv) bytes, $seconds s of $(basename "$source"); CPU time, the best of $rounds rounds"
probe="ffprobe -v error -show_entries format=duration film.flv"
cut="ffmpeg -v error -nostdin -y -ss $from -to $to -i film.flv -c copy -f flv /dev/null"
row info "$flvhost info film.flv" -- ffprobe "$probe"
row seek "$flvhost seek film.flv $from" -- ffprobe "ffprobe -v error -read_intervals $from%+#1 -show_packets film.flv"
row "play --from --to" "$flvhost play film.flv --from $from --to $to -o /dev/null" -- ffmpeg "$cut"
row play "$flvhost play film.flv -o /dev/null" -- ffmpeg \
  "ffmpeg -v error -nostdin -y -i film.flv -c copy -f flv /dev/null"
row "info --count" "$flvhost info --count film.flv" \
  -- ffprobe "ffprobe -v error -count_packets -show_entries stream=nb_read_packets film.flv" \
  -- flvmeta "flvmeta --check film.flv || true"
row check "$flvhost check film.flv" \
  -- flvmeta "flvmeta --check --quiet film.flv || true" \
  -- ffprobe "ffprobe -v error -count_packets -show_entries stream=nb_read_packets film.flv"
