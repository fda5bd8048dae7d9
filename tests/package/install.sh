#!/bin/sh
# Installs the build into a folder of its own, moves that, and uses it as a host writer would: each header compiles
# alone, pkg-config and CMake find the package, and the example of the docs, built outside with each compiler that
# is here, opens the sample through the installed module.
#
# With a folder of Debian packages, what they hold is used in the same way.
#
# usage: install.sh SOURCE_FOLDER BUILD_FOLDER [PACKAGES]
set -eu
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
say() { echo "-- $*"; }

sample=$work/testcard.flv
cp "$source/samples/testcard.flv" "$sample"
expected="365130 bytes, 6034 ms, 2 segments, 232 audio tags, 150 video tags"
flags="-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror"

# A host may have other things of our integers' names.
for name in u8 u16 u32 u64 i8 i16 i32 i64; do echo "struct $name {};"; done >"$work/taken.h"

# use PREFIX COMPILER...: what a host writer does with the tree there.
use() {
  prefix=$1
  shift
  headers=$prefix/include/flvadaptor
  module=$(find "$prefix/lib" -name libflvadaptor.so)
  [ -f "$module" ] || { echo "no module in $prefix"; exit 1; }
  for compiler in "$@"; do
    command -v $compiler >/dev/null || { say "$compiler isn't here"; continue; }
    count=0
    for header in $(find "$headers" -name '*.h'); do
      $compiler -std=c++17 $flags -fsyntax-only -I"$headers" -x c++ -include "$header" /dev/null
      $compiler -std=c++17 $flags -fsyntax-only -I"$headers" -DORV_NO_GLOBAL_INTEGERS -x c++ \
        -include "$work/taken.h" -include "$header" /dev/null
      count=$((count + 1))
    done
    [ $count -gt 5 ] || { echo "only $count headers in $headers"; exit 1; }
    say "$compiler: $count headers compile alone as C++17"

    example=$work/$compiler-$(basename "$prefix")
    cmake -S "$source/docs/example" -B "$example" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER=$compiler \
      -DCMAKE_CXX_STANDARD=17 -DCMAKE_CXX_FLAGS="$flags" >"$work/log"
    cmake --build "$example" >>"$work/log" || { cat "$work/log"; exit 1; }
    got=$("$example/tinyhost" "$sample")
    say "$compiler: $got"
    [ "$got" = "$expected" ] || { echo "expected $expected"; exit 1; }

    # What the other example records of it is the same film. A message that is no AMF, put in front of the tags,
    # is dropped.
    bad='\022\0\0\001\0\0\0\0\0\0\0\043\0\0\0\014'
    { head -c 13 "$sample"; printf "$bad"; tail -c +14 "$sample"; } >"$work/stream.flv"
    rm -f "$work/copy.flv"
    "$example/tinyrecorder" "$work/copy.flv" <"$work/stream.flv" 2>"$work/log" >&2
    grep -q malformed "$work/log"
    got=$("$example/tinyhost" "$work/copy.flv")
    [ "$got" = "$expected" ] || { echo "recorded $got"; exit 1; }
  done

  if command -v pkg-config >/dev/null; then
    export PKG_CONFIG_PATH="$(dirname "$module")/../pkgconfig"
    [ "$(realpath "$(pkg-config --variable=pluginsdir flvadaptor)")" = "$(dirname "$module")" ]
    echo '#include "modules/streams/contract/Contract.h"' |
      g++ -std=c++17 -fsyntax-only $(pkg-config --cflags flvadaptor) -x c++ -
    say "pkg-config: $(pkg-config --modversion flvadaptor)"
  fi

  if [ -x "$prefix/bin/flvhost" ]; then
    (cd / && "$prefix/bin/flvhost" info "$sample")
  fi
  zcat "$prefix/share/man/man1/flvhost-play.1.gz" >"$work/page"
  grep -q -e '-from' "$work/page"
  bash -n "$prefix/share/bash-completion/completions/flvhost"
  [ -f "$prefix/share/zsh/vendor-completions/_flvhost" ]
}

if [ $# -gt 2 ]; then
  for package in "$3"/*.deb; do dpkg-deb -x "$package" "$work/root"; done
  use "$work/root/usr" g++
  exit 0
fi
cmake --install "$build" --prefix "$work/first" >"$work/log"
mv "$work/first" "$work/prefix"
use "$work/prefix" g++ clang++
