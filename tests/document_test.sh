#!/bin/sh
# A document's marked blocks against what they show. A fenced block that follows
#   <!-- file: PATH -->        is that file of the source tree, letter for letter;
#   <!-- output: PROGRAM -->   is what that program prints, engine log lines apart.
#
# usage: document_test.sh DOCUMENT SOURCE_DIRECTORY PROGRAM_DIRECTORY
set -u
document=$1
sources=$2
programs=$3
directory=$(mktemp -d) || exit 1
trap 'rm -rf "$directory"' EXIT

# Each marked block into a file of its own, in order, with its marker beside it.
awk -v to="$directory" '
  /^<!-- (file|output): .* -->$/ { marker = $2 " " $3; next }
  /^```/ && inside { inside = 0; close(block); next }
  /^```/ && marker != "" {
    inside = 1
    block = sprintf("%s/block%02d", to, ++blocks)
    printf "" >block
    print marker >(block ".marker")
    close(block ".marker")
    marker = ""
    next
  }
  inside { print >block }
' "$document"

failures=0
checked=0
for marker in "$directory"/*.marker; do
  [ -e "$marker" ] || break
  read -r kind name <"$marker"
  case $kind in
    file:) cp "$sources/$name" "$directory/expected" ;;
    # The engine's own lines carry the time of day and a level.
    output:) (cd "$directory" && "$programs/$name") >"$directory/printed" || failures=$((failures + 1))
      grep -vE '^[0-9]{4} .* \[[A-Z]+\] ' "$directory/printed" >"$directory/expected" ;;
  esac
  checked=$((checked + 1))
  diff -u "$directory/expected" "${marker%.marker}" && continue
  printf 'FAILED: %s does not show %s %s as it is\n' "$document" "$kind" "$name"
  failures=$((failures + 1))
done
[ "$checked" -gt 0 ] || { printf 'FAILED: %s has no marked block\n' "$document"; exit 1; }
[ "$failures" -eq 0 ]
