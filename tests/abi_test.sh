#!/bin/sh
# Compares the ABI of a built library with the one that hosts rely on.
#
# usage: abi_test.sh compare BASELINE LIBRARY
#        abi_test.sh write BASELINE LIBRARY INCLUDE_DIRECTORY
#          updates the baseline from the library; see docs/abi.md.
#        abi_test.sh portable LIBRARY INCLUDE_DIRECTORY
#          checks that what "write" would write names no directory of this machine.
set -eu
public=$(dirname "$0")/abi/public.suppr
case $1 in
  compare)
    # All types count: those of the baseline are public, but a filter for private
    # types would drop them, as the baseline names no files.
    abidiff --suppressions "$public" "$2" "$3" || {
      echo 'FAILED: the binary interface is not the promised one; docs/abi.md says what may change'
      exit 1
    }
    "$0" portable "$3" "$(dirname "$0")/../include"
    ;;
  write)
    # Where it was built does not belong in the baseline.
    abidw --suppressions "$public" --headers-dir "$4" --drop-private-types --exported-interfaces-only \
      --no-show-locs --no-corpus-path --no-comp-dir-path --no-elf-needed "$3" |
      sed "s|path='[^']*/src/|path='src/|; s|path='/[^']*/|path='|" >"$2"
    ;;
  portable)
    written=$(mktemp)
    trap 'rm -f "$written"' EXIT
    "$0" write "$written" "$2" "$3"
    if grep "='/" "$written"; then
      echo 'FAILED: a new baseline would say where it was built'
      exit 1
    fi
    ;;
esac
