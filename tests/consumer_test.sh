#!/bin/sh
# Hosts outside this project that build against the library and run.
#
# usage: consumer_test.sh install BUILD_DIRECTORY PREFIX
#          installs the build and moves it to PREFIX;
#        consumer_test.sh find PREFIX BITS CC CXX
#        consumer_test.sh pkg-config PREFIX BITS CC CXX
#          builds and runs the hosts in C and in C++ against it;
#        consumer_test.sh refuse PREFIX BITS CC CXX
#          asks for another word size and other versions, and is refused;
#        consumer_test.sh add SOURCE_DIRECTORY BITS CC CXX
#          builds and runs them with the library's source as part of theirs, file by
#          file and as a unity build;
#        consumer_test.sh harden SOURCE_DIRECTORY BITS CC CXX
#          checks that libc calls are fortified and indirect jumps protected;
#        consumer_test.sh tool PREFIX [LIBRARY_PATH]
#          runs the installed orvex-scan, with its other libraries from LIBRARY_PATH.
set -eu
consumers=$(cd "$(dirname "$0")" && pwd)/consumer
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT

fail() {
  printf 'FAILED: %s\n' "$*"
  exit 1
}

# configure LANGUAGE BITS [OPTION...]
configure() {
  language=$1
  export CFLAGS="-m$2" CXXFLAGS="-m$2"
  shift 2
  cmake -G Ninja -S "$consumers/$language" -B "$directory/$language" \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" "$@" >"$directory/log" 2>&1
}

# The host must use the library in the prefix and no other.
usesPrefix() {
  LD_LIBRARY_PATH=${2:-} ldd "$1" | grep liborvexeng | grep -q "$prefix/" ||
    fail "$1 runs with another library than that of $prefix"
}

command=$1
shift
if [ "$command" = install ]; then
  DESTDIR="$directory/stage" cmake --install "$1" --prefix "/first place"
  rm -rf "$2"
  mkdir -p "$(dirname "$2")"
  mv "$directory/stage/first place" "$2"
  ! grep -rIl -e "/first place" -e "$1" -e "$directory" "$2" || fail 'files name the place they were built in or installed to'
  [ -e "$2/bin/orvex-scan" ] || ! find "$2" -name 'orvex-scan*' | grep . ||
    fail 'there is no orvex-scan, but a page about it'
  exit 0
fi
prefix=$1
if [ "$command" = tool ]; then
  tool=$prefix/bin/orvex-scan
  usesPrefix "$tool"
  # shellcheck disable=SC2016 # the loader's word, not ours
  ! readelf -dW "$tool" | grep -E 'RPATH|RUNPATH' | grep -v '\[$ORIGIN/[^:]*\]' ||
    fail 'orvex-scan searches for libraries outside its prefix'
  LD_LIBRARY_PATH=${2:-} "$tool" --version
  exit 0
fi

bits=$2
cc=$3
cxx=$4
case $command in
  find)
    for language in c cpp; do
      configure $language "$bits" -DCMAKE_PREFIX_PATH="$prefix" || { cat "$directory/log"; exit 1; }
      cmake --build "$directory/$language"
      usesPrefix "$directory/$language/consumer"
      "$directory/$language/consumer"
    done
    ;;
  add)
    for language in c cpp; do
      unity=OFF
      [ $language = c ] || unity=ON
      configure $language "$bits" -DORVEXENG_SOURCE="$prefix" -DCMAKE_UNITY_BUILD=$unity ||
        { cat "$directory/log"; exit 1; }
      cmake --build "$directory/$language"
      "$directory/$language/consumer"
    done
    ;;
  harden)
    for level in 1 2 3; do
      export CFLAGS="-m$bits" CXXFLAGS="-m$bits -D_FORTIFY_SOURCE=$level"
      cmake -G Ninja -S "$prefix" -B "$directory/$level" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DORVEXENG_BITS="$bits" \
        -DORVEXENG_BUILD_TESTS=OFF -DORVEXENG_BUILD_TOOLS=OFF -DORVEXENG_BUILD_EXAMPLES=OFF \
        -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >"$directory/log" 2>&1 || { cat "$directory/log"; exit 1; }
      compile=$(sed -n 's/.*"command": "\(.*\) -o .*/\1/p' "$directory/$level/compile_commands.json" | head -n 1)
      macros=$($compile -x c++ -dM -E /dev/null)
      expected=$level
      [ "$level" -gt 1 ] || expected=2
      printf '%s\n' "$macros" | grep -q "_FORTIFY_SOURCE $expected" ||
        fail "the environment wants fortification $level and does not get $expected"
      printf '%s\n' "$macros" | grep -q __CET__ || fail 'indirect jumps are not checked'
    done
    ;;
  refuse)
    expectRefusal() {
      configure c "$@" -DCMAKE_PREFIX_PATH="$prefix" && fail "a project got what it cannot use: $*"
      grep -q 'orvexeng-config.cmake, version: 1.1' "$directory/log" ||
        { cat "$directory/log"; fail "it was refused for another reason: $*"; }
      rm -rf "$directory/c"
    }
    expectRefusal $((96 - bits))
    expectRefusal "$bits" -DORVEXENG_WANTED=1.2
    expectRefusal "$bits" -DORVEXENG_WANTED=2.0
    ;;
  pkg-config)
    PKG_CONFIG_LIBDIR=$(dirname "$(find "$prefix" -name orvexeng.pc)")
    export PKG_CONFIG_LIBDIR
    flags=$(pkg-config --cflags --libs 'orvexeng >= 1.1')
    # Both are words of a shell, with blanks escaped.
    libraries=
    eval "libraries=$(pkg-config --variable=libdir orvexeng)"
    eval "\"$cc\" -m$bits \"$consumers/c/consumer.c\" -o \"$directory/c\" $flags"
    eval "\"$cxx\" -m$bits \"$consumers/cpp/consumer.cpp\" -o \"$directory/cpp\" $flags"
    for host in "$directory/c" "$directory/cpp"; do
      usesPrefix "$host" "$libraries"
      LD_LIBRARY_PATH=$libraries "$host"
    done
    ;;
esac
