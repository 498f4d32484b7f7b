#!/bin/sh
# Compiles the public headers alone, in every language version they support.
#
# usage: header_alone_test.sh INCLUDE_DIRECTORY COMPILER_FLAG COMPILER...
# The flag selects the target; compilers are pairs of a C and a C++ compiler.
set -u
include=$1
target=$2
shift 2
directory=$(mktemp -d) || exit 1
trap 'rm -rf "$directory"' EXIT
printf '#include "orvexeng.h"\n' >"$directory/alone.c"
cp "$directory/alone.c" "$directory/alone.cpp"
printf '#include "orvexeng.hpp"\n' >"$directory/owning.cpp"
failures=0

compile() {
  "$@" "$target" -I "$include" -Wall -Wextra -pedantic -Werror -fsyntax-only && return
  printf 'FAILED: %s\n' "$*"
  failures=$((failures + 1))
}

while [ $# -ge 2 ]; do
  for standard in c99 c11 c17; do compile "$1" -std=$standard "$directory/alone.c"; done
  for standard in c++11 c++14 c++17 c++20; do compile "$2" -std=$standard "$directory/alone.cpp"; done
  for standard in c++17 c++20; do
    compile "$2" -Wconversion -Wshadow -std=$standard "$directory/owning.cpp"
  done
  shift 2
done
[ "$failures" -eq 0 ]
