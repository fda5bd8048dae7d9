#!/bin/sh
# Includes run downwards only: each folder may include from the folders of its row, and only src/platform names
# the operating system.
#
# usage: layers.sh SOURCE_FOLDER
set -eu
cd "$1"
bad=0

# files DIR: its sources; includes FILE: what it takes from us, relative to src/ or host/, one a line.
files() { find "$1" -name '*.h' -o -name '*.cpp' | sort; }
includes() { sed -n 's/^#include "\(.*\)"$/\1/p' "$1"; }

# layer DIR PATTERN: every include of DIR's files matches PATTERN.
layer() {
  [ -d "$1" ] || return 0
  count=0
  for file in $(files "$1"); do
    count=$((count + 1))
    for header in $(includes "$file"); do
      allowed=$2
      case $file in src/util/autofilebuffer.*) allowed="$2|^modules/streams/contract/IFileService\.h$" ;; esac
      echo "$header" | grep -qE "$allowed" || { echo "$file includes $header"; bad=1; }
    done
  done
  echo "$1: $count files"
}

contract='^modules/streams/contract/'
layer src/platform '^platform/'
layer src/util '^(util|platform)/'
layer src/shared_ktserver '^(shared_ktserver|util|platform)/'
layer src/server '^(server|shared_ktserver|util|platform)/'
layer src/modules/streams/contract "$contract|^util/KT(Object|String)\.h$|^platform/Types\.h$"
layer src/modules/streams/flv '^(modules/streams/(flv|contract)|server|shared_ktserver|util|platform)/'
layer host "^[^/]+\$|^host/|$contract|^(server|shared_ktserver|util|platform)/"

system='^#include <((sys|linux|asm|boost/context)/.*|unistd\.h|fcntl\.h|pthread\.h|dlfcn\.h|dirent\.h|sched\.h|semaphore\.h)>'
if grep -rnE "$system" src --include='*.h' --include='*.cpp' | grep -v '^src/platform/'; then
  echo "only src/platform may name the operating system"
  bad=1
fi
exit $bad
