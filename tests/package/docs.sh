#!/bin/sh
# Holds the bytes that docs/file-layout.md quotes against the sample. A quote is a line of a code block: an offset,
# two blanks, bytes in hexadecimal.
#
# usage: docs.sh SOURCE_FOLDER
set -eu
cd "$1"
quotes=$(sed -nE 's/^ *([0-9]+)  (([0-9a-f]{2} )*[0-9a-f]{2})(  .*)?$/\1 \2/p' docs/file-layout.md)
bad=0 count=0
while read -r offset bytes; do
  got=$(od -An -v -tx1 -w64 -j "$offset" -N $(((${#bytes} + 1) / 3)) samples/testcard.flv)
  [ "${got# }" = "$bytes" ] || { echo "at $offset the file has$got, the page $bytes"; bad=1; }
  count=$((count + 1))
done <<END
$quotes
END
echo "$count quotes"
[ $count -gt 40 ] || { echo "that's too few"; bad=1; }
exit $bad
