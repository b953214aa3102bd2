#!/usr/bin/env bash
# The library exports what exports.txt lists, nothing more and nothing less, and the Debian package's symbols file
# knows since which version.
#   exports.sh LIBRARY [--update]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
kept=$here/exports.txt
symbols=$here/../../debian/libkab0.symbols
found=$(nm -D --defined-only "$1" | awk '$2 ~ /[TDBRVW]/ {sub(/@.*/, "", $3); print $3}' | grep -vx 'KAB_0' | LC_ALL=C sort)

if [ "${2:-}" = --update ]; then
  echo "$found" >"$kept"
  # A symbol keeps the version that it came with; a new one comes with the version under way.
  version=$(sed -n 's/^project(kab VERSION \([0-9.]*\).*/\1/p' "$here/../../CMakeLists.txt")
  since=$(grep '^ ' "$symbols" 2>/dev/null || true)
  {
    echo "libkab.so.0 libkab0 #MINVER#"
    echo "* Build-Depends-Package: libkab-dev"
    while read -r symbol; do
      grep -F " $symbol@KAB_0 " <<<"$since" || echo " $symbol@KAB_0 $version"
    done < <(printf 'KAB_0\n%s\n' "$found" | LC_ALL=C sort)
  } >"$symbols.new"
  mv "$symbols.new" "$symbols"
  exit 0
fi

stale() {
  echo "The exported symbols changed. If that is meant: tests/abi/exports.sh LIBRARY --update" >&2
  exit 1
}
diff -u "$kept" <(echo "$found") || stale
diff -u <(sed -n 's/^ \([^@]*\)@KAB_0 .*/\1/p' "$symbols" | grep -vx KAB_0) <(echo "$found") || stale
