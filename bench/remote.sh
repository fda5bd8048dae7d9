#!/bin/sh
# What a seek in a file on a web server costs: requests, bytes and time, with a stated delay of each request. nginx
# serves the file; a proxy on loopback delays. ffmpeg seeks to the same places through the same proxy.
#
# usage: bench/remote.sh [FLVHOST] [MIB] [DELAY_MS]      needs nginx, ffmpeg, python3
set -eu
flvhost=$(realpath "${1:-build/release/host/flvhost}") mib=${2:-1024} delay=${3:-20}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'kill $proxy 2>/dev/null || true; [ ! -f "$work/nginx.pid" ] || kill "$(cat "$work/nginx.pid")"; rm -rf "$work"' EXIT
proxy=

# film NAME RATE PRESET SIZE: half a minute over and over, without an index.
film() {
  ffmpeg -v error -nostdin -f lavfi -i "testsrc2=s=$4:r=25" -f lavfi -i sine=f=440 -t 30 -c:v libx264 -preset "$3" -g 50 \
    -b:v "$2" -maxrate "$2" -bufsize "$2" -c:a aac -f flv "$work/piece.flv"
  ffmpeg -v error -nostdin -stream_loop -1 -i "$work/piece.flv" -c copy -fs $((mib << 20)) \
    -flvflags no_duration_filesize "$work/$1.flv"
}

chmod 755 "$work"
cat >"$work/nginx.conf" <<EOF
worker_processes 1; pid $work/nginx.pid; error_log $work/error.log;
events { worker_connections 256; }
http { log_format bytes "\$body_bytes_sent"; access_log $work/access.log bytes; root $work; keepalive_requests 100000;
  server { listen 127.0.0.1:18901; } }
EOF
nginx -c "$work/nginx.conf"
python3 "$here/delay.py" 18902 18901 "$delay" &
proxy=$!
sleep 1

# measure NAME COMMAND...: of each start; requests and bytes are nginx's own count.
measure() {
  name=$1
  shift
  for share in 4 17 30 43 61 78 96; do
    at=$((length * share / 100))
    sleep 0.3
    : >"$work/access.log"
    kill -USR1 "$(cat "$work/nginx.pid")"
    begin=$(date +%s%N)
    "$@" $at >/dev/null 2>&1 || echo "$name at $at: failed" >&2
    end=$(date +%s%N)
    sleep 0.3
    awk -v n="$name" -v at=$at -v ms=$(((end - begin) / 1000000)) \
      '{ bytes += $1 } END { printf "%-28s %6d s %5d requests %9.1f KiB %6d ms\n", n, at, NR, bytes / 1024, ms }' "$work/access.log"
  done
}
seek() { "$flvhost" seek "$url" "$1"; }
seekAll() { "$flvhost" seek "$url" "$1" --set "FrameTypes=9 8 20 17 18 15 41 40 52 49 50 47"; }

seekFfmpeg() { timeout 120 ffmpeg -v error -nostdin -ss "$1" -i "$url" -frames:v 1 -c copy -f null -; }

# The first is what is streamed as a rule; the second has large frames, and poor coding that repeats itself.
for what in "common 2M veryfast 1280x720" "large 6M ultrafast 1280x720"; do
  film $what
  name=${what%% *}
  url=http://127.0.0.1:18902/$name.flv
  length=$("$flvhost" info --json "$work/$name.flv" |
    python3 -c 'import json, sys; print(json.load(sys.stdin)["files"][0]["duration"]["ms"] // 1000)')
  echo "$what: $mib MiB, $length s, without an index; $delay ms a request"
  measure "flvhost seek" seek
  measure "flvhost seek, all types" seekAll
  measure "ffmpeg -ss" seekFfmpeg
  rm "$work/$name.flv"
done
