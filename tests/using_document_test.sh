#!/bin/sh
# The italic sentences that end the numbered sections of a document name the test cases
# of a source, in the same order, one per section.
#
# usage: using_document_test.sh DOCUMENT SOURCE
set -u
directory=$(mktemp -d) || exit 1
trap 'rm -rf "$directory"' EXIT
sed -n 's/^\*\(.*\)\*$/\1/p' "$1" >"$directory/named"
sed -n 's/^TEST_CASE("\(.*\)").*$/\1/p' "$2" >"$directory/tests"
sections=$(grep -c '^## [0-9]' "$1")
[ "$sections" -gt 0 ] || { printf 'FAILED: %s has no numbered section\n' "$1"; exit 1; }
[ "$sections" -eq "$(wc -l <"$directory/named")" ] || {
  printf 'FAILED: %s has %s numbered sections, but not as many tests\n' "$1" "$sections"
  exit 1
}
diff -u "$directory/named" "$directory/tests"
