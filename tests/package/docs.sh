#!/bin/sh
# Holds the docs to the truth: the bytes that docs/file-layout.md quotes stand in the sample, and the commands that
# README.md shows on the sample print what it says.
#
# usage: docs.sh SOURCE_FOLDER FLVHOST
set -eu
cd "$1"
flvhost=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A quote is a line of a code block: an offset, two blanks, bytes in hexadecimal.
sed -nE 's/^ *([0-9]+)  (([0-9a-f]{2} )*[0-9a-f]{2})(  .*)?$/\1 \2/p' docs/file-layout.md >"$work/page"
while read -r offset bytes; do
  echo "$offset$(od -An -v -tx1 -w64 -j "$offset" -N $(((${#bytes} + 1) / 3)) samples/testcard.flv)"
done <"$work/page" >"$work/file"
diff -u "$work/page" "$work/file"
[ "$(wc -l <"$work/page")" -gt 40 ] || { echo "too few quotes"; exit 1; }

# A transcript: "    $ command" and the lines it prints, with the same indentation.
mkdir "$work/bin" "$work/samples"
ln -s "$flvhost" "$work/bin/flvhost"
cp samples/testcard.flv "$work/samples"
sed -nE 's/^    //p' README.md | awk '/^\$/ {shown = /samples\/testcard/} shown' >"$work/readme"
(
  cd "$work"
  PATH="$work/bin:$PATH"
  sed -n 's/^\$ //p' readme | while read -r command; do
    echo "\$ $command"
    sh -c "$command" 2>&1 </dev/null
  done | sed 's/ *$//' >printed
)
diff -u "$work/readme" "$work/printed"
[ "$(grep -c '^\$' "$work/readme")" -ge 5 ] || { echo "too few transcripts"; exit 1; }
