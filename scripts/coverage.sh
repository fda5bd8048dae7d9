#!/bin/sh
# Shows which lines of src/ and host/ neither tests nor the replays of the fuzzers reach: a table of files, and each
# file's text with counts under build/coverage/report.
#
# usage: scripts/coverage.sh [JOBS]
set -eu
cd "$(dirname "$0")/.."
jobs=${1:-$(nproc)}
build=build/coverage
export LLVM_PROFILE_FILE=$PWD/$build/profiles/%m_%p.profraw

cmake --preset coverage >/dev/null
cmake --build $build -j "$jobs"
rm -rf $build/profiles $build/report
ctest --test-dir $build -j "$jobs" --output-on-failure --no-tests=error -E '^package\.'

llvm-profdata merge -sparse -o $build/all.profdata $build/profiles
first=$build/libflvadaptor.so
objects=$(find $build/tests $build/fuzz $build/host -type f -perm -u+x \( -name '*_tests' -o -name '*_replay' -o -name flvhost \) |
  sed 's/^/-object=/')
llvm-cov show $first $objects -instr-profile=$build/all.profdata -format=html -output-dir=$build/report src host >/dev/null
llvm-cov report $first $objects -instr-profile=$build/all.profdata -show-region-summary=false \
  -show-branch-summary=false src host
echo "each line: $build/report/index.html"
