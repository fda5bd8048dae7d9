#!/bin/sh
# Runs a transcript in an empty folder: each command behind "$ ", and behind "> " where it goes on, by the shell, with
# the sample at hand as f.flv. What it prints, and its exit status in brackets if that isn't 0, must be what stands
# below it.
#
# usage: transcripts.sh FLVHOST MODULE SAMPLE TRANSCRIPT        UPDATE=1 puts what was printed into the transcript
set -u
program=$1 transcript=$(realpath "$4") work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export FLVADAPTOR_MODULE="$(realpath "$2")" TZ=UTC0 LC_ALL=C
mkdir "$work/run"
cp "$3" "$work/run/f.flv"
cd "$work/run" || exit 1

flvhost() { "$program" "$@"; }
shown() {  # COMMAND, and what came of it.
  printed=$(eval "$1" 2>&1 </dev/null)
  status=$?
  printf '%s' "$printed" | sed "s#$work/run#DIR#g"
  [ "$status$printed" = 0 ] || echo "$([ $status = 0 ] || echo "${printed:+ }[$status]")"
}
try() { for call; do shown "flvhost $call"; done; }
# JSON in as few lines as it takes.
flat() { tr -s ' \n' ' ' | sed 's/ *\([][{}]\) */\1/g; s/": /":/g; s/\("memoryOverhead":\)[0-9]*/\1N/'; }
folded() { flat | fold -s -w 119 | sed 's/ *$//'; echo; }
entries() { flvhost meta "$1" | flat | sed 's/.*"encoding"/"encoding"/' | folded; }
# The bytes that a text writes down in the notation of tests/support/AmfText.h.
bytes() {
  perl -e '$_ = shift; print +(defined $1 ? $1 : chr hex $2) x ($3 || 1)
           while /\G\s*(?:\x27(.*?)\x27|(..))(?:\((\d+)\))?/gs' "$*"
}
flv() { bytes "'FLV' 01 05 00000009 00000000"; }
tag() {  # TYPE TIME PAYLOAD
  size=$(bytes "$3" | wc -c)
  bytes "$(printf '%02X %06X %06X %02X 000000' "$1" "$size" $(($2 & 0xFFFFFF)) $(($2 >> 24))) $3" \
    "$(printf %08X $((size + 11)))"
}
claiming() { flv; tag 18 0 "02 000A'onMetaData' 08 00000000 $1 000009"; }  # ENTRIES
media() { tail -c +297 f.flv; }                                            # The sample's tags but for its metadata.

command='' commented=1
run() { [ -z "$command" ] || shown "$command"; }
grep '^[$>#] ' "$transcript" | {
  while IFS= read -r line; do
    case $line in
      '#'*) run; [ $commented ] || echo; command='' commented=1 ;;
      '$'*) run; command=${line#??} commented='' ;;
      *) command="$command ${line#??}" ;;
    esac
    printf '%s\n' "$line"
  done
  run
} >"$work/printed"
if [ "${UPDATE:-}" ]; then cp "$work/printed" "$transcript"; fi
diff -u "$transcript" "$work/printed"
