#!/usr/bin/env bash
# The library exports what exports.txt lists, nothing more and nothing less.
#   exports.sh LIBRARY [--update]
set -euo pipefail
kept=$(dirname "$0")/exports.txt
found=$(nm -D --defined-only "$1" | awk '$2 ~ /[TDBRVW]/ {sub(/@.*/, "", $3); print $3}' | grep -vx 'KAB_0' | LC_ALL=C sort)
if [ "${2:-}" = --update ]; then
  echo "$found" >"$kept"
  exit 0
fi
diff -u "$kept" <(echo "$found") || {
  echo "The exported symbols changed. If that is meant: tests/abi/exports.sh LIBRARY --update" >&2
  exit 1
}
