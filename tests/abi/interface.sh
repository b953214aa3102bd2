#!/usr/bin/env bash
# Programs built against the last release go on working: the interface that the headers state, compared with the one
# kept of that release.
#   interface.sh check|update
#
# What is compared is a program of one pointer an exported symbol, of the type that the headers give it: it has the
# debug information that a release build of the library lacks, and is compiled in no time. `update` is for a release,
# after SOVERSION was raised where CONTRIBUTING.md asks for it.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$here/../..
soversion=$(sed -n 's/.*SOVERSION \([0-9]*\).*/\1/p' "$top/src/CMakeLists.txt")
kept=$here/libkab.so.$soversion.abi.xz
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

{
  echo '#include "kab/kab.h"'
  sed 's/.*/extern __typeof__(\&&) const abi_&;\n__typeof__(\&&) const abi_& = \&&;/' "$here/exports.txt"
} >"$work/interface.c"
"${CC:-cc}" -std=gnu11 -g -fPIC -shared -I"$top/include" "$work/interface.c" -o "$work/interface.so"

abi() {
  abidw --no-show-locs --no-corpus-path --no-comp-dir-path --no-architecture --no-elf-needed --no-write-default-sizes \
    --no-parameter-names --type-id-style hash "$work/interface.so"
}
# members RECORD FILE: offset, name and type of every field, one a line
members() {
  sed -n "/<class-decl name='$1' size/,/<\/class-decl>/p" "$2" | tr -d '\n' |
    grep -o "layout-offset-in-bits='[0-9]*'> *<var-decl name='[^']*' type-id='[^']*'"
}

if [ "$1" = update ]; then
  abi | xz -9 >"$kept"
  exit 0
fi

status=0
xz -dc "$kept" >"$work/kept.abi"
abi >"$work/new.abi"
abidiff --suppressions "$here/interface.suppr" --no-added-syms --no-architecture "$work/kept.abi" "$work/new.abi" || status=1
# These are suppressed above. Only the library allocates them: they may grow at their end, and change in no other way.
for record in KABDiskCtx KABDumpCtx; do
  members "$record" "$work/kept.abi" >"$work/kept"
  members "$record" "$work/new.abi" | head -n "$(wc -l <"$work/kept")" | diff -u "$work/kept" - || status=1
done
if [ "$status" != 0 ]; then
  echo "The interface of libkab.so.$soversion changed: see \"Versions and the soname\" in CONTRIBUTING.md" >&2
fi
exit $status
