#!/bin/sh
# doxygen generates pages from the public header without a warning, in a fresh copy.
#
# usage: doxygen_test.sh DOXYGEN SOURCE_DIRECTORY
set -eu
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
mkdir "$directory/docs"
cp "$2"/docs/Doxyfile "$2"/docs/doxygen.sed "$directory/docs"
cp -R "$2/include" "$directory"
cd "$directory"
"$1" docs/Doxyfile
# Without input there would be no warnings either.
grep -q orvex_query build/doxygen/orvexeng_8h.html
