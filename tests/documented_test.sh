#!/bin/sh
# Checks the manual pages against the code, both ways: functions with their types,
# constants with their values, the fields of records, configuration keys, and the
# options, exit codes and metrics of orvex-scan if that is built.
#
# usage: documented_test.sh SOURCE_DIRECTORY [ORVEX_SCAN]
set -u
sources=$1
scan=${2:-}
header=$sources/include/orvexeng.h
exported=$sources/tests/exported_functions.txt
config=$sources/src/engine/orvex_settings.cpp
manual=$sources/docs/man
library=$manual/orvexeng.3
ini=$manual/orvexeng.ini.5
tool=$manual/orvex-scan.1
directory=$(mktemp -d) || exit 1
trap 'rm -rf "$directory"' EXIT
failures=0

# same WHAT: "there" (the code) and "told" (the manual) have the same lines, in any order.
same() {
  sort "$directory/there" >"$directory/there.sorted"
  sort "$directory/told" >"$directory/told.sorted"
  [ -s "$directory/there" ] || {
    printf 'FAILED: no %s found\n' "$1"
    failures=$((failures + 1))
  }
  (cd "$directory" && diff -u there.sorted told.sorted) && return
  printf 'FAILED: the %s there are (-) and those in the manual (+) differ\n' "$1"
  failures=$((failures + 1))
}
there() { cat >"$directory/there"; }
told() { cat >"$directory/told"; }

# The header without comments, one declaration or directive a line.
code=$directory/code
tr '\n' '\001' <"$header" | sed 's|/\*[^*]*\*\{1,\}\([^/*][^*]*\*\{1,\}\)*/||g' | tr '\001' '\n' |
  awk '/^#/ { print; next } { printf "%s ", $0 } /[;{},] *$/ { print "" }' |
  sed 's/  */ /g; s/^ //; s/ $//' |
  # A function's parameters may continue on the next line.
  awk '{ printf "%s%s", $0, /^ORVEX_API [^;]*$/ ? " " : "\n" }' >"$code"

sed -n 's/^ORVEX_API \(.*\);$/\1/; s/ *\* */ */g; /^[a-z ]*orvex_[a-z_]*(.*)$/p' "$code" | there
synopsis() {
  awk -F'"' '
    /^\.Ft / { type = substr($0, 5) }
    /^\.Fn / && type != "" {
      split($1, words, " ")
      arguments = words[3]
      for (i = 2; i < NF; i += 2) arguments = arguments (i > 2 ? ", " : "") $i
      printf "%s %s(%s)\n", type, words[2], arguments
      type = ""
    }' "$@"
}
synopsis "$library" | told
same 'functions of the synopsis'
synopsis "$manual"/orvex_*.3 | told
same 'functions of the pages'

sed -n 's/^ORVEX_API .*\(orvex_[a-z_]*\)(.*/\1/p' "$header" | there
cp "$exported" "$directory/told"
same 'declared and exported functions'
# The page of each function, or a link to it, names the function.
for page in "$manual"/orvex_*.3; do
  name=$(basename "$page" .3)
  link=$(sed -n 's|^\.so man3/||p' "$page")
  sed 's/ ,$//' "$manual/${link:-$name.3}" | grep -qx "\.Nm $name" && echo "$name"
done | told
same 'functions with a page'

{
  sed -n 's/^\([A-Z][A-Z0-9_]*\) = \([0-9a-fx]*\),\{0,1\}\( }.*\)\{0,1\}$/\1 \2/p' "$code"
  sed -n 's/^#define \(ORVEX_[A-Z_]*\) "\{0,1\}\([0-9.]*\)"\{0,1\}$/\1 \2/p' "$header"
} | there
sed -n 's/^\.It Dv \([A-Z0-9_]*\) Pq \(Qq \)\{0,1\}/\1 /p' "$manual"/*.3 | told
same 'codes and other constants'

awk '
  /^typedef struct .* {$/ { record = $3; print record; next }
  /^}/ { record = "" }
  record != "" && /;$/ { sub(/(\[.*\])?;$/, ""); sub(/.*[ *]/, ""); print record "." $0 }
' "$code" | there
sed -n 's/^typedef .*(\*\(orvex_[a-z_]*\))(.*/\1/p' "$code" >>"$directory/there"
awk '
  /^\.Vt / { record = $2; print record }
  /^\.It Fa / { for (i = 3; i <= NF; ++i) if ($i != ",") print record "." $i }
' "$manual"/*.3 | sort -u | told
same 'types and fields, counters among them'

sed -n 's/.*GetConfig[A-Z][a-z]*("\([^"]*\)".*/\1/p' "$config" | there
sed -n 's/^\.It Cm //p' "$ini" | told
same 'configuration keys'

if [ -n "$scan" ]; then
  "$scan" --help >"$directory/help" || failures=$((failures + 1))
  sed -n 's/^  \(-[^ ]*\).*/\1/p' "$directory/help" | tr ',' '\n' | there
  awk '/^\.It Fl / { for (i = 2; i < NF; ++i) if ($i == "Fl") print "-" $(i + 1) }' "$tool" | told
  same 'options of orvex-scan'
  bash -c '. "$1"; COMP_WORDS=(orvex-scan -); COMP_CWORD=1; _orvex_scan
    printf "%s\n" "${COMPREPLY[@]}"' - "$sources/tools/orvex-scan/orvex-scan.bash" | told
  same 'options that bash completes'

  sed -n '/"properties": {/!s/^ *"\([A-Za-z0-9]*\)": {.*/\1/p' "$sources/docs/orvex-scan.schema.json" |
    grep -vxE 'definitions|items|additionalProperties' | sort -u | there
  sed -n 's/^\.It Va \([A-Za-z0-9]*\)$/\1/p' "$tool" | sort -u | told
  same 'fields of the JSON report'

  sed -n '/^Exit codes:/,$p' "$directory/help" | tr '\n' ' ' | grep -oE '[:;] [0-9]+ ' |
    tr -dc '0-9\n' | there
  sed -n 's/^\.It \([0-9]*\)$/\1/p' "$tool" | told
  same 'exit codes of orvex-scan'

  "$scan" --metrics prometheus "$tool" 2>"$directory/table" | sed -n 's/^# TYPE \([^ ]*\) .*/\1/p' | there
  sed -n 's/^\.It Ic \(orvex_[a-z_]*\) .*/\1/p' "$tool" | told
  same 'metrics of orvex-scan'
fi
[ "$failures" -eq 0 ]
