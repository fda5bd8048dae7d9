#!/bin/sh
# Installs what is missing of the Debian packages that a task needs; asks for nothing and says little.
#
# usage: scripts/setup.sh TASK...     TASK: build, test, bench, lint, clang, coverage, mutants, package, player, nginx, scaling,
#        interop
set -eu

packages_of() {
  case $1 in
    build) echo g++ cmake ninja-build ccache libboost-dev libboost-context-dev libboost-filesystem-dev \
      libboost-thread-dev libcli11-dev nlohmann-json3-dev libfmt-dev libcurl4-openssl-dev ;;
    test) echo libgtest-dev libgmock-dev binutils pkg-config ;;
    bench) echo libbenchmark-dev libboost-fiber-dev libavformat-dev pkg-config libmimalloc2.0 libtcmalloc-minimal4 ;;
    lint) echo clang-format clang-tidy ;;
    clang) echo clang libclang-rt-dev ;;
    coverage) echo clang libclang-rt-dev llvm ;;
    mutants) echo python3 ;;
    package) echo dpkg-dev lintian ;;
    player) echo npm ;;
    nginx) echo nginx-light ;;
    scaling) echo ffmpeg glusterfs-client glusterfs-server iproute2 procps ;;
    interop) echo ffmpeg flvmeta mediainfo curl chromium time nginx-light openssl ;;
    *) echo "setup.sh: no such task: $1" >&2; exit 2 ;;
  esac
}

wanted=
for task in "$@"; do
  wanted="$wanted $(packages_of "$task")"
done

command -v dpkg-query >/dev/null || { echo "not a Debian system: it needs what these packages hold:$wanted"; exit 0; }
there=$(dpkg-query -W -f='${Package} ${db:Status-Status}\n' $wanted 2>/dev/null | sed -n 's/ installed$//p')
missing=
for package in $wanted; do
  echo "$there" | grep -qxF "$package" || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

echo "installing:$missing"
as_root="env DEBIAN_FRONTEND=noninteractive"
[ "$(id -u)" -eq 0 ] || as_root="sudo $as_root"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
{ $as_root apt-get update -q && $as_root apt-get install -q -y --no-install-recommends $missing; } \
  >"$log" 2>&1 </dev/null || { cat "$log" >&2; exit 1; }
