#!/bin/sh
# Installs the build into a folder of its own, moves that, and uses it as a host writer would: each header compiles
# alone, pkg-config and CMake find the package, and the example of the docs, built outside with each compiler that
# is here, opens the sample through the installed module.
#
# usage: install.sh SOURCE_FOLDER BUILD_FOLDER
set -eu
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
say() { echo "-- $*"; }

cmake --install "$build" --prefix "$work/first" >"$work/log"
mv "$work/first" "$work/prefix"
prefix=$work/prefix
headers=$prefix/include/flvadaptor
module=$prefix/lib/flvadaptor/libflvadaptor.so
[ -f "$module" ] || { echo "no module in $prefix"; exit 1; }

sample=$work/testcard.flv
cp "$source/samples/testcard.flv" "$sample"
expected="365130 bytes, 6034 ms, 2 segments, 232 audio tags, 150 video tags"
flags="-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror"

for compiler in g++ clang++; do
  command -v $compiler >/dev/null || { say "$compiler isn't here"; continue; }
  count=0
  for header in $(find "$headers" -name '*.h'); do
    $compiler -std=c++17 $flags -fsyntax-only -I"$headers" -x c++ -include "$header" /dev/null
    count=$((count + 1))
  done
  [ $count -gt 5 ] || { echo "only $count headers in $headers"; exit 1; }
  say "$compiler: $count headers compile alone as C++17"

  cmake -S "$source/docs/example" -B "$work/$compiler" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER=$compiler \
    -DCMAKE_CXX_STANDARD=17 -DCMAKE_CXX_FLAGS="$flags" >"$work/log"
  cmake --build "$work/$compiler" >>"$work/log" || { cat "$work/log"; exit 1; }
  got=$("$work/$compiler/tinyhost" "$sample")
  say "$compiler: $got"
  [ "$got" = "$expected" ] || { echo "expected $expected"; exit 1; }
done

if command -v pkg-config >/dev/null; then
  export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
  [ "$(realpath "$(pkg-config --variable=pluginsdir flvadaptor)")" = "$(dirname "$module")" ]
  echo '#include "modules/streams/contract/Contract.h"' |
    g++ -std=c++17 -fsyntax-only $(pkg-config --cflags flvadaptor) -x c++ -
  say "pkg-config: $(pkg-config --modversion flvadaptor)"
fi

if [ -x "$prefix/bin/flvhost" ]; then
  (cd / && "$prefix/bin/flvhost" info "$sample")
fi
