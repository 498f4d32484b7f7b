#!/bin/sh
# Runs the README's commands for building a host, except the first, which installs
# packages, on a copy of the tree, and checks what the host prints.
#
# usage: readme_test.sh SOURCE_DIRECTORY
set -eu
directory=$(mktemp -d "${TMPDIR:-/tmp}/a tree.XXXXXX") # Catches unquoted paths.
trap 'rm -rf "$directory"' EXIT
tar -C "$1" --exclude=./build --exclude=./.git -cf - . | tar -C "$directory" -xf -
cd "$directory"
sed -n '/^<!-- run: readme_test.sh -->$/,/^```$/p' README.md | sed '/^<!--/d; /^```/d' >commands
[ "$(wc -l <commands)" -eq 5 ]
sed 1d commands >without_first
sh -eu ./without_first | tee printed
[ "$(grep -c '^digest .* computed 1 time(s)$' printed)" -eq 2 ]
