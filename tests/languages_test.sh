#!/bin/sh
# Runs the commands of docs/languages.md for one language against an installed library,
# and looks for what the host prints. Exits with 77, and says why, where the language's
# tools are missing.
#
# usage: languages_test.sh c|python|rust|go DOCUMENT PREFIX BITS
set -eu
language=$1
document=$2
prefix=$3
bits=$4
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT

skip() {
  echo "SKIPPED: $*"
  exit 77
}

command -v pkg-config >/dev/null || skip 'no pkg-config: scripts/require pkg-config'

# word NAME COMMAND: makes NAME run COMMAND in the document's commands.
words=$directory/words
mkdir "$words"
word() {
  printf '#!/bin/sh\nexec %s "$@"\n' "$2" >"$words/$1"
  chmod +x "$words/$1"
}

word cc "$(command -v cc) -m$bits"
word c++ "$(command -v c++) -m$bits"
case $language in
  python)
    for python in python3 /usr/bin/python3 none; do
      [ $python != none ] || skip "no $bits-bit Python with cffi: scripts/require python3-cffi"
      $python -c "import cffi, sys; sys.exit(cffi.FFI().sizeof('void *') * 8 != $bits)" \
        2>/dev/null && break
    done
    word python3 "$(command -v "$python")"
    ;;
  rust)
    case $bits in 32) machine=i686 ;; *) machine=x86_64 ;; esac
    target=$machine-unknown-linux-gnu
    [ -d "$(rustc --print sysroot 2>/dev/null)/lib/rustlib/$target/lib" ] ||
      skip "no rustc for $target: scripts/require rustc"
    word rustc "$(command -v rustc) --target $target -C linker=$words/cc"
    ;;
  go)
    command -v go >/dev/null || skip 'no go: scripts/require golang-go'
    case $bits in 32) export GOARCH=386 ;; *) export GOARCH=amd64 ;; esac
    # Nothing is fetched. Uses the user's cache, as compiling Go's library takes a while.
    export CGO_ENABLED=1 CC="$words/cc" CXX="$words/c++" GOPROXY=off
    ;;
esac

cd "$directory"
# The commands do not support spaces in the prefix.
ln -s "$prefix" prefix
PKG_CONFIG_PATH=$(dirname "$(find "$directory/prefix/" -name orvexeng.pc)")
export PKG_CONFIG_PATH
LD_LIBRARY_PATH=$(pkg-config --variable=libdir orvexeng)
export LD_LIBRARY_PATH
sed -n "/^<!-- run: languages_test.sh $language -->\$/,/^\`\`\`\$/p" "$document" |
  sed '/^<!--/d; /^```/d' >commands
[ -s commands ]
PATH=$words:$PATH sh -eu ./commands >printed
cat printed
if [ "$language" = c ]; then
  expected='^1 signer(s): Example Builds$'
else
  expected='^digest 09..., signer Example Builds, computed 1 time(s)$'
fi
[ "$(grep -c "$expected" printed)" -eq 2 ]
