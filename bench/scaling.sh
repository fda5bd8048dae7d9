#!/bin/bash
# One recorder and three followers, each a process with a mount of its own, on a distributed file system whose copies
# die one after another while the recording goes on: GlusterFS with three copies, all on this machine, in namespaces
# of their own that leave nothing behind. At the end each follower must have written every tag of the recording, and
# the three copies must be equal.
#
# usage: bench/scaling.sh [FLVHOST [SECONDS]]      as root; SECONDS: how long to record, default 60
set -euo pipefail
if [ -z "${SCALING_INSIDE:-}" ]; then
  flvhost=$(realpath "${1:-build/release/host/flvhost}")
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  SCALING_INSIDE=$work unshare --mount --net --pid --fork --mount-proc --kill-child "$0" "$flvhost" "${2:-60}"
  exit
fi
flvhost=$1 seconds=$2 work=$SCALING_INSIDE
cd "$work"

now() { awk '{print $1}' /proc/uptime; }
start=$(now)
say() { awk -v s="$start" -v n="$(now)" -v t="$*" 'BEGIN {printf "%5.1f s  %s\n", n - s, t}'; }
fail() { echo "scaling.sh: $*" >&2; exit 1; }

# --- a volume of three copies, and four mounts of it

mkdir -p state/lib state/run state/log a b c m0 m1 m2 m3
mkdir -p /var/lib/glusterd /run/gluster /var/log/glusterfs
cp -a /var/lib/glusterd/. state/lib/ && rm -rf state/lib/{glusterd.info,peers,vols}
mount --bind state/lib /var/lib/glusterd
mount --bind state/run /run/gluster
mount --bind state/log /var/log/glusterfs
ip link set lo up
ip address add 192.0.2.1/32 dev lo
volume() { gluster --mode=script volume "$@"; }
glusterd
for try in $(seq 50); do volume list >/dev/null 2>&1 && break; sleep 0.2; done
volume create films replica 3 192.0.2.1:"$work"/{a,b,c} force >/dev/null
volume start films >/dev/null
for m in m0 m1 m2 m3; do mount -t glusterfs 192.0.2.1:/films $m; done

# copy NAME: the process that serves a copy.
copy() { pgrep -f "glusterfsd.*$work/$1 -l" || true; }

# healed: waits until no copy lacks anything.
healed() {
  for try in $(seq 600); do
    volume heal films info 2>/dev/null | awk '/^Number of entries/ {n++; if ($NF != 0) bad = 1} END {exit bad || n != 3}' && return
    sleep 0.1
  done
  fail "the copies didn't heal within a minute"
}

# --- the recording, and who follows it

ffmpeg -v error -nostdin -re -f lavfi -i testsrc2=rate=25 -f lavfi -i sine -t "$seconds" -c:v flv1 -g 25 -b:v 2M \
  -c:a libmp3lame -ar 44100 -f flv - 2>ffmpeg.log |
  "$flvhost" record m0/film.flv --flush-every 0.2s 2>record.log &
recorder=$!
followers=()
for m in 1 2 3; do
  "$flvhost" follow m$m/film.flv --wait --until-idle 10s -o follower$m.flv 2>follower$m.log &
  followers+=($!)
done
say "recording $seconds s; three followers"

pause=$((seconds / 15))
for name in a b c a; do
  sleep "$pause"
  kill -9 $(copy $name)
  say "copy $name killed at $(stat -c %s m1/film.flv) bytes"
  sleep $((pause * 2))
  volume start films force >/dev/null
  healed
  say "copy $name is back, and healed"
done

wait $recorder || fail "the recorder failed: $(cat record.log)"
say "recorded: $(tail -1 record.log)"
for i in 0 1 2; do wait "${followers[i]}" || fail "follower $((i + 1)) failed: $(cat follower$((i + 1)).log)"; done
healed

# --- nothing is missing anywhere

tags() { "$flvhost" tags "$1" --json | grep -o '"time":.*' | grep -v '"kind":"data"' | grep -v onMetaData; }
tags m1/film.flv >film.tags
for m in 1 2 3; do
  tags follower$m.flv >follower.tags
  cmp film.tags follower.tags || fail "follower $m has other tags than the recording"
done
say "three followers wrote all $(wc -l <film.tags) tags"
for m in m0 m1 m2 m3; do umount $m; done
cmp a/film.flv b/film.flv && cmp a/film.flv c/film.flv || fail "the copies differ"
say "three copies of $(stat -c %s a/film.flv) bytes are equal"
"$flvhost" check a/film.flv >check.log || fail "check: $(cat check.log)"
