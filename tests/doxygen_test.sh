#!/bin/sh
# The public header made into pages without a warning, in a copy of what a fresh clone has.
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
# Had nothing been read there would be nothing to warn of either.
grep -q orvex_query build/doxygen/orvexeng_8h.html
