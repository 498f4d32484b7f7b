#!/bin/sh
# Checks a document's blocks against what they show. Every fenced block is one of these:
#   after <!-- file: PATH -->        that file of the source tree, verbatim;
#   after <!-- lines: PATH -->       consecutive lines of that file, except indentation;
#   after <!-- output: PROGRAM... -->  what each prints, except engine log lines;
#   after <!-- sample: COMMAND -->   what that command printed once; it varies from run
#                                    to run, so only the command is checked to exist;
#   after <!-- run: TEST... -->      shell commands that this script of tests/ runs;
#   opened with "sh"                 shell commands: each of them exists.
# Links within the source tree lead to a file, and to one of its headings if they name one.
# A command exists if it is a file of the source tree, a target with its program below
# build/, or known to the shell.
#
# usage: document_test.sh DOCUMENT SOURCE_DIRECTORY PROGRAM_DIRECTORY
set -u
document=$1
sources=$2
programs=$3
directory=$(mktemp -d) || exit 1
trap 'rm -rf "$directory"' EXIT
failures=0

fail() {
  printf 'FAILED: %s: %s\n' "$document" "$*"
  failures=$((failures + 1))
}

# Writes each block to its own file, in order, with its kind and name next to it.
awk -v to="$directory" '
  /^ *<!-- (file|lines|output|sample|run): .* -->$/ && !inside {
    marker = $0
    gsub(/^ *<!-- | -->$/, "", marker)
    next
  }
  /^ *(```|~~~)/ && inside { inside = 0; close(block); next }
  /^ *(```|~~~)/ {
    inside = 1
    block = sprintf("%s/block%02d", to, ++blocks)
    printf "" >block
    if (marker == "") marker = (/^ *```sh$/ ? "sh: " : "unmarked: ") "line " NR
    print marker >(block ".marker")
    close(block ".marker")
    marker = ""
    next
  }
  inside { print >block; next }
  /[^ ]/ { marker = "" }
  END { if (inside) print "open: a block without an end" >(block ".marker") }
' "$document"

exists() {
  case $1 in
    build/*) grep -rqE --include=CMakeLists.txt --exclude-dir=build \
      -- "(^|[( ])$(basename "$1")([ )]|\$)" "$sources" ;;
    */*) [ -x "$sources/$1" ] ;;
    *) command -v "$1" >/dev/null ;;
  esac
}

# The first word of each command, after sudo and assignments.
commands() {
  sed -e ':join' -e '/\\$/{N;s/\\\n/ /;b join' -e '}' "$1" |
    sed 's/\(^\|[ \t]\)#.*//; s/&&\|||\||\|;/\n/g' |
    sed 's/^[ \t]*\(\(sudo\|[A-Za-z_]*=[^ ]*\) \{1,\}\)*//; s/[ \t].*//; /^$/d'
}

# The lines of a file, joined, without their indentation.
flat() { sed 's/^ *//' "$1" | tr '\n' '\001'; }

for marker in "$directory"/*.marker; do
  [ -e "$marker" ] || break
  block=${marker%.marker}
  read -r kind name <"$marker"
  case $kind in
    file:) diff -u "$sources/$name" "$block" || fail "$name is not shown as it is" ;;
    lines:) case $(flat "$sources/$name") in
        *"$(flat "$block")"*) ;;
        *) fail "$name has no such lines: $(cat "$block")" ;;
      esac ;;
    # The engine's own lines carry the time of day and a level.
    output:) for program in $name; do
        (cd "$directory" && "$programs/$program") >"$directory/printed" || fail "$program fails"
        grep -vE '^[0-9]{4} .* \[[A-Z]+\] ' "$directory/printed" >"$directory/expected"
        diff -u "$directory/expected" "$block" || fail "$program prints something else"
      done ;;
    sample:) exists "$name" || fail "a sample of $name, which does not exist" ;;
    run:) [ -x "$sources/tests/${name%% *}" ] || fail "$name does not exist" ;;
    sh:) for command in $(commands "$block"); do
        exists "$command" || fail "$command does not exist"
      done ;;
    *) fail "the block of $name is neither marked nor of shell commands" ;;
  esac
done

# The headings of a document as link anchors.
anchors() { sed -n 's/^##* //p' "$1" | tr '[:upper:] ' '[:lower:]-' | sed 's/[^a-z0-9_-]//g'; }

# Outside blocks. A link's text may end one line and its target begin the next.
# shellcheck disable=SC2016 # backquotes as they are
for link in $(sed '/^ *```/,/^ *```/d' "$document" | tr '\n' ' ' | grep -oE '\]\([^) ]+\)' | sed 's/^](//; s/)$//'); do
  case $link in *://*) continue ;; esac
  target=$(dirname "$document")/${link%%#*}
  [ "${link%%#*}" ] || target=$document
  [ -e "$target" ] || fail "$link leads nowhere"
  case $link in
    *#*) anchors "$target" | grep -qxF -e "${link#*#}" || fail "$link names no heading" ;;
  esac
done
[ "$failures" -eq 0 ]
