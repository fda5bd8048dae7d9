#!/bin/sh
# Keeps the list of rooms in docs/architecture.md true: every folder with sources is on the page, every source of the
# engine is named there, and every room that its tables name is there.
#
# usage: rooms.sh SOURCE_FOLDER
set -eu
cd "$1"
page=docs/architecture.md
engine=src/modules/streams/flv
bad=0
complain() { echo "$page: $*"; bad=1; }

for folder in $(find src host -name '*.cpp' -exec dirname {} + | sort -u); do
  case $folder in
    host) continue ;;
  esac
  grep -qE "$folder( |$)" "$page" || complain "$folder is missing"
done

for file in "$engine"/*.cpp "$engine"/*.h; do
  room=$(basename "${file%.*}")
  grep -q "\`$room\`" "$page" || complain "$room is missing"
done

rooms=$(sed -nE '/^## Rooms/,/^## Four/s/^\| (`.*`) \|.*/\1/p' "$page" | tr -d '`,')
[ "$(echo "$rooms" | wc -w)" -ge 10 ] || complain "too few rooms"
for room in $rooms; do
  [ -n "$(find src host -name "$room.h")" ] || complain "$room isn't there"
done
exit $bad
