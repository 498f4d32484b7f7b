#!/bin/sh
# The public header made into pages without a warning; they are thrown away.
#
# usage: doxygen_test.sh DOXYGEN SOURCE_DIRECTORY
set -eu
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
cd "$2"
{
  cat docs/Doxyfile
  echo "OUTPUT_DIRECTORY = $directory"
} | "$1" -
# Had nothing been read there would be nothing to warn of either.
grep -q orvex_query "$directory/html/orvexeng_8h.html"
