#!/bin/sh
# The built library as a linker and a loader see it: what it exports, what it
# needs, and how it is protected.
#
# usage: library_test.sh LIBRARY BITS EXPORTED_FUNCTIONS PACKAGE_SYMBOLS
set -u
library=$1
bits=$2
expectedFunctions=$3
packageSymbols=$4
failures=0

fail() {
  printf 'FAILED: %s\n' "$*"
  failures=$((failures + 1))
}

# Linker names, without their version.
exported=$(nm -D --defined-only "$library" | awk '$2 != "A" {sub(/@.*/, "", $3); print $3}' | sort)

functions=$(printf '%s\n' "$exported" | grep -v '^_Z')
if [ "$functions" != "$(sort "$expectedFunctions")" ]; then
  fail "the unmangled exports are not those of $expectedFunctions:"
  printf '%s\n' "$functions"
fi

# A package whose symbols differ from its library's cannot be built.
packaged=$(sed -n "s/^ (arch-bits=$bits)//p; s/^ \([^(]\)/\1/p" "$packageSymbols" |
  sed '/^ORVEXENG_/d; s/@.*//' | sort)
if [ "$packaged" != "$exported" ]; then
  fail "the exports are not those of $packageSymbols; only on one side are:"
  printf '%s\n' "$packaged" "$exported" | sort | uniq -u
fi

# Members, virtual tables and types of the library's own classes, its free
# functions, and nothing else: no instantiation of the standard library.
classes='ORVEX_[A-Za-z_]+|LRUCache(Key|Node)?|LRUCacheMetrics_s|FileTypeCache(Node)?|FileTypeCacheMetrics_s'
templates='LRUCacheT<LRUCacheKey, (LRUCacheNode, LRUCacheMetrics_s|FileTypeCacheNode, FileTypeCacheMetrics_s)>|ORVEX_Singleton<(ORVEX_ENGINE|ORVEX_Config|LRUCache|FileTypeCache)>'
strangers=$(printf '%s\n' "$exported" | grep '^_Z' | c++filt |
  grep -vE "^(non-virtual thunk to |vtable for |typeinfo for |typeinfo name for )?($classes|$templates)(::.*)?$" |
  grep -vE '^(ORVEX_atomic_|ORVEXTime)[A-Za-z0-9_]*\(')
[ -z "$strangers" ] || fail "exports that are not the library's own: $strangers"

for class in ORVEX_ENGINE ORVEX_Config ORVEX_LOG_BASE ORVEX_LOGGER ORVEX_Lock ORVEX_PThread_Lock \
  ORVEX_CondVar ORVEX_PThread_CondLock ORVEX_ScopeLock ORVEX_ScopeRefCnt ORVEX_Profiling \
  ORVEX_Set LRUCache LRUCacheKey LRUCacheNode FileTypeCache FileTypeCacheNode; do
  printf '%s\n' "$exported" | c++filt | grep -q "^$class::" || fail "$class is not exported"
done
for data in ORVEX_LOG_BASE::LogEnable ORVEX_LOG_BASE::LogLevel ORVEX_Profiling::EnableProfiling \
  ORVEX_Config::ConfigFilePath; do
  printf '%s\n' "$exported" | c++filt | grep -q "^$data" || fail "$data is not exported"
done

dynamic=$(readelf -dW "$library")
printf '%s\n' "$dynamic" | grep -q 'SONAME.*\[liborvexeng\.so\.1\]' || fail 'the SONAME is wrong'
printf '%s\n' "$dynamic" | grep -q 'FLAGS.*NOW' || fail 'symbols are not bound at load time'
printf '%s\n' "$dynamic" | grep -q TEXTREL && fail 'there are text relocations'
needed=$(printf '%s\n' "$dynamic" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' |
  grep -vE '^(libstdc\+\+|libgcc_s|libc|libm|ld-linux.*)\.so\.[0-9]+$')
[ -z "$needed" ] || fail "more than the C and C++ runtime is needed: $needed"

promised=$(sed -n 's/.*Runs on | glibc \([0-9.]*\) .*/GLIBC_\1/p' "$(dirname "$0")/../README.md")
newest=$(readelf -VW "$library" | grep -oE 'GLIBC_[0-9.]+' | sort -Vu | tail -n 1)
[ "$(printf '%s\n' "$newest" "$promised" | sort -V | tail -n 1)" = "$promised" ] ||
  fail "needs $newest, while the README says $promised"

readelf --dyn-syms -W "$library" | grep -q 'WEAK .* pthread_mutex_trylock@GLIBC_2\.[02]' ||
  fail 'a contended lock cannot be tried, or not with every C library'

headers=$(readelf -lW "$library")
printf '%s\n' "$headers" | grep -q GNU_RELRO || fail 'relocations stay writable'
printf '%s\n' "$headers" | grep 'GNU_STACK' | grep -q 'RWE' && fail 'the stack is executable'

nm "$library" | grep -q ' u ' && fail 'a unique symbol keeps the library mapped for ever'

directory=$(dirname "$library")
[ "$(readlink "$directory/liborvexeng.so")" = liborvexeng.so.1 ] || fail 'liborvexeng.so links elsewhere'
[ "$(readlink "$directory/liborvexeng.so.1")" = liborvexeng.so.1.1.1035 ] || fail 'liborvexeng.so.1 links elsewhere'

[ "$failures" -eq 0 ]
