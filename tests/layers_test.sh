#!/bin/sh
# Each layer of the sources uses only those below it, and only the top one calls what hosts
# call.
#
# usage: layers_test.sh SOURCES
set -eu
cd "$1"

found=0
# usage: refuse WHAT DIRECTORY PATTERN
refuse() {
  what=$1
  directory=$2
  pattern=$3
  if grep -nE "$pattern" "$directory"/*; then
    echo "$what"
    found=1
  fi
}

refuse 'support includes what stands above it' support '#include "(cache|engine)/'
refuse 'cache includes what stands above it' cache '#include "engine/'
for layer in support cache; do
  refuse "$layer calls an exported function" "$layer" '(^|[^A-Za-z_:])orvex_[a-z_]+\('
done
exit $found
