#!/bin/sh
# The same source builds the same library, byte for byte, in any directory.
#
# usage: reproducible_test.sh SOURCE_DIRECTORY BITS CC CXX
set -eu
source=$1
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT

for place in here "somewhere/else with a longer name"; do
  copy=$directory/$place
  mkdir -p "$copy"
  cp -R "$source/CMakeLists.txt" "$source/cmake" "$source/include" "$source/src" "$copy"
  CXXFLAGS="-ffile-prefix-map=$(printf %s "$copy" | sed 's/ /\\ /g')=." \
    cmake -G Ninja -S "$copy" -B "$copy/build" -DORVEXENG_BITS="$2" \
    -DCMAKE_C_COMPILER="$3" -DCMAKE_CXX_COMPILER="$4" -DORVEXENG_BUILD_EXAMPLES=OFF \
    -DORVEXENG_BUILD_TESTS=OFF >"$directory/log" 2>&1 ||
    { cat "$directory/log"; exit 1; }
  cmake --build "$copy/build" --target orvexeng >"$directory/log" 2>&1 ||
    { cat "$directory/log"; exit 1; }
done
cd "$directory"
sha256sum here/build/liborvexeng.so somewhere/*/build/liborvexeng.so
cmp here/build/liborvexeng.so somewhere/*/build/liborvexeng.so
