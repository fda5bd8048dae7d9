#!/bin/sh
# The server with real clients: ffmpeg publishes H.264 and AAC, curl and ffmpeg take it, and a browser plays a file
# and a live stream, seeks in both and goes on.
#
# usage: serve.sh FLVHOST SAMPLE FOLDER      FOLDER: npm's packages are kept there.
. "$(dirname "$0")/common.sh"
here=$(cd "$(dirname "$0")" && pwd)
packages=$3

mkdir -p "$packages" "$work/films"
(
  cd "$packages"
  [ -d node_modules/playwright-core ] || { echo '{}' >package.json && npm install --silent --no-audit --no-fund playwright-core; }
  [ -f package/dist/mpegts.js ] || { npm pack --silent mpegts.js@1.8.0 && tar -xzf mpegts.js-1.8.0.tgz package/dist/mpegts.js; }
) >"$work/npm" 2>&1 || fail "npm: $(cat "$work/npm")"

ffmpeg -v error -nostdin -f lavfi -i testsrc2=s=640x360:r=25 -f lavfi -i sine=f=440 -t 40 -c:v libx264 -preset ultrafast \
  -g 25 -pix_fmt yuv420p -c:a aac -f flv "$work/source.flv"
cp "$work/source.flv" "$work/films/film.flv"
touch -d '1 hour ago' "$work/films/film.flv"

"$flvhost" serve "$work/films" --listen 127.0.0.1:0 --allow-publish --flush-every 50ms \
  --player "$packages/package/dist/mpegts.js" >"$work/out" 2>"$work/err" &
server=$!
trap 'kill $server 2>/dev/null || true; wait; rm -rf "$work"' EXIT
for _ in $(seq 100); do grep -q http "$work/out" && break; sleep 0.1; done
url=$(sed -n 's/.* at \(http.*\)\/$/\1/p' "$work/out")

# Each frame from each start, as ffmpeg sees it in the file itself.
curl -sf "$url/film.flv" | cmp - "$work/films/film.flv" || fail "curl gets other bytes than the file's"
curl -sf "$url/film.flv?from=10" -o "$work/part.flv"
decodes "$work/part.flv"
packets "$work/part.flv" | sort >"$work/part"
packets "$work/source.flv" | sort >"$work/whole"
[ -z "$(comm -23 "$work/part" "$work/whole")" ] || fail "frames behind a seek differ from the file's"
[ "$(wc -l <"$work/part")" -gt 2000 ] || fail "frames are missing behind a seek"

(cd "$packages" && NODE_PATH=$packages/node_modules node "$here/browser.js" "$url/" film.flv file "$work/film.png") ||
  fail "a file in the browser"

ffmpeg -v error -nostdin -re -i "$work/source.flv" -c copy -f flv "$url/live.flv" &
publisher=$!
sleep 3 # The stream has to have some past to shift to.
curl -sf "$url/live.flv" -o "$work/live.flv" &
viewer=$!
(cd "$packages" && NODE_PATH=$packages/node_modules node "$here/browser.js" "$url/" live.flv live "$work/live.png") ||
  fail "a live stream in the browser"
wait $publisher || fail "the publisher"
wait $viewer || fail "the viewer"
packets "$work/live.flv" >"$work/seen"
packets "$work/source.flv" | diff - "$work/seen" >/dev/null || fail "a viewer of the live stream saw other frames"
[ -z "${SCREENSHOTS:-}" ] || cp "$work"/*.png "$SCREENSHOTS"
[ ! -s "$work/err" ] || fail "the server complains: $(cat "$work/err")"
