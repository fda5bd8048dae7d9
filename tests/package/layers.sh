#!/bin/sh
# Includes run downwards only: each folder may include from the folders of its row, and only src/platform names
# the operating system.
#
# usage: layers.sh SOURCE_FOLDER
set -eu
cd "$1"
bad=0

# layer DIR PATTERN: every include of DIR's sources, relative to src/ or to the project, matches PATTERN.
layer() {
  [ -d "$1" ] || return 0
  files=$(find "$1" -name '*.h' -o -name '*.cpp' | sort)
  echo "$1: $(echo "$files" | wc -w) files"
  for file in $files; do
    case $file in
      src/util/autofilebuffer.*) allowed="$2|^modules/streams/contract/IFileService\.h$" ;;
      *) allowed=$2 ;;
    esac
    found=$(sed -n 's/^#include "\(.*\)"$/\1/p' "$file" | grep -vE "$allowed") || continue
    echo "$file includes $found"
    bad=1
  done
}

contract='^modules/streams/contract/'
layer src/platform '^platform/'
layer src/util '^(util|platform)/'
layer src/shared_ktserver '^(shared_ktserver|util|platform)/'
layer src/server '^(server|shared_ktserver|util|platform)/'
layer src/modules/streams/contract "$contract|^util/KT(Object|String)\.h$|^platform/Types\.h$"
layer src/modules/streams/flv '^(modules/streams/(flv|contract)|server|shared_ktserver|util|platform)/'
base='(server|shared_ktserver|util|platform)/'
layer host/text "^host/text/|^$base"
layer host/files "^host/(files|text)/|$contract|^$base"
layer host/flv "^host/(flv|files|text)/|$contract|^$base"
layer host/module "^host/(module|flv|files|text)/|$contract|^$base"
layer host/check "^host/(check|flv|files|text)/|$contract|^$base"
layer host/repair "^host/(repair|check|flv|files|text)/|$contract|^$base"
layer host/report "^host/(report|check|flv|files|text)/|$contract|^$base"
layer host/server "^host/(server|module|flv|files|text)/|$contract|^$base"
layer host/commands "^host/|$contract|^$base"

system='^#include <((sys|linux|asm|boost/context)/.*|unistd\.h|fcntl\.h|pthread\.h|dlfcn\.h|dirent\.h|sched\.h|semaphore\.h)>'
if grep -rnE "$system" src --include='*.h' --include='*.cpp' | grep -v '^src/platform/'; then
  echo "only src/platform may name the operating system"
  bad=1
fi
exit $bad
