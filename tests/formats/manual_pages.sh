#!/usr/bin/env bash
# Doxygen had nothing to complain of, and groff has not, about any page; every alias leads somewhere.
#   manual_pages.sh GROFF DOC MAN
set -euo pipefail
groff=$1
doc=$2
man=$3
status=0
fail() {
  echo "manual_pages.sh: $*" >&2
  status=1
}

[ -f "$doc/warnings.txt" ] || fail "Doxygen was not run"
[ ! -s "$doc/warnings.txt" ] || fail "Doxygen warns:"$'\n'"$(cat "$doc/warnings.txt")"
pages=0
for page in "$doc"/man3/libkab*.3 "$man"/*.[1-9]; do
  [ -f "$page" ] || continue
  said=$("$groff" -t -man -ww -b -z -Tutf8 "$page" 2>&1) || fail "groff fails on $page"
  [ -z "$said" ] || fail "$page: $said"
  pages=$((pages + 1))
done
[ "$pages" -ge 12 ] || fail "only $pages pages"
for function in KABOpenDisk KABPlogRead Bucketlist_Insert kabLogStrm; do
  target=$(sed -n 's/^\.so man3\///p' "$doc/man3/$function.3")
  grep -q "^\.SS $function\$" "$doc/man3/$target" || fail "$function.3 leads to no description"
done
exit $status
