#!/bin/sh
# Holds the built module against what a plug-in may be: it shows exactly the symbols of exports.txt, has no
# soname, brings no library but the compiler's own into its host, and nothing in it keeps it loaded for good.
#
# usage: module.sh MODULE [--update]
set -eu
export LC_ALL=C
module=$1
list=$(dirname "$0")/exports.txt

# For each class what it shows of its own, where "self" is the class.
symbols=$(nm -DC --defined-only "$module" | sed 's/^[0-9a-f]* . //' | sort -u | perl -lne '
  ($member, $class) = /^(.*) for (.*)/ or ($class, $member) = /^([^(]*)::(.*)/ or ($class, $member) = ($_, "itself");
  ($name) = $class =~ /(\w+)$/;
  push @{$all{$class}}, $member =~ s/\b(\Q$class\E|$name)\b/self/gr;
  END { print "$_: ", join "; ", @{$all{$_}} for sort keys %all }' | fold -s -w 119 | sed 's/ *$//')
[ "${2:-}" != --update ] || echo "$symbols" >"$list"
echo "$symbols" | diff -u "$list" - || { echo "the exported symbols differ from $list"; exit 1; }

refuse() {  # refuse TEXT PATTERN WHAT...: no line of the readelf output WHAT may match PATTERN
  text=$1 pattern=$2
  shift 2
  if readelf -W "$@" "$module" | grep -E "$pattern"; then
    echo "$module: $text"
    exit 1
  fi
}
refuse "a soname, or a path or mark that only a linked library has" '\((SONAME|RPATH|RUNPATH|TEXTREL)\)|NODELETE' -d
refuse "symbols that must be unique in the process" ' UNIQUE ' --dyn-syms
# A destructor that runs at the end of a thread holds the module until that thread is gone.
refuse "destructors of thread-locals" '__cxa_thread_atexit' --dyn-syms

others=$(readelf -d "$module" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
  grep -vE '^(libstdc\+\+|libm|libgcc_s|libc)\.so\.[0-9]+$|^ld-linux' || true)
[ -z "$others" ] || { echo "$module needs more than the compiler's libraries: $others"; exit 1; }
