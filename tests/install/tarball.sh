#!/usr/bin/env bash
# Packs a build as a tarball; what it must hold is there and nothing of the build tree is, and its tool runs where it
# was unpacked.
#   tarball.sh CPACK BUILD VERSION
set -euo pipefail
cpack=$1
build=$2
version=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "tarball.sh: $*" >&2
  exit 1
}

"$cpack" --config "$build/CPackConfig.cmake" -B "$work" >"$work/log" 2>&1 || fail "$(tail -n 20 "$work/log")"
tarball=$(find "$work" -maxdepth 1 -name "kab-$version-*.tar.xz")
[ -n "$tarball" ] || fail "no tarball"
mkdir "$work/unpacked"
tar -xJf "$tarball" -C "$work/unpacked" --strip-components=1

# Every pattern matches something, and together they match everything.
cat >"$work/expected" <<'END'
bin/kab
include/kab/[a-z]+\.h
lib[^ ]*/libkab\.so(\.0|\.[0-9.]+)?
lib[^ ]*/cmake/kab/kab-(config|config-version|targets|targets-[a-z]+)\.cmake
lib[^ ]*/pkgconfig/kab\.pc
lib/python3/dist-packages/kab/(py\.typed|[a-z_]+\.py)
share/doc/kab/docs/[a-z-]+\.md
share/doc/kab/docs/images/[a-z]+\.svg
share/doc/kab/docs/schema/.*
share/doc/kab/README\.md
share/doc/kab/examples/(CMakeLists\.txt|[a-z_]+\.(c|cc|py))
share/man/man5/kab-dump\.5
END
[ ! -f "$build/doc/man3/libkab.3" ] || echo 'share/man/man3/[A-Za-z0-9_]+\.3' >>"$work/expected"
# Made where the packages for it are there.
cat >"$work/optional" <<'END'
lib[^ ]*/nbdkit/plugins/nbdkit-kab-plugin\.so
share/(bash-completion|zsh|fish)/.*
share/man/man1/kab[a-z-]*\.1
share/doc/kab/.*
END
(cd "$work/unpacked" && find . -type f -o -type l | sed 's|^\./||' | LC_ALL=C sort) >"$work/found"
while read -r pattern; do
  grep -qxE "$pattern" "$work/found" || fail "nothing like $pattern"
done <"$work/expected"
if grep -vxE -f "$work/expected" -f "$work/optional" "$work/found"; then
  fail "these have no place in it"
fi
if grep -rlF -e "$build" "$work/unpacked"; then
  fail "these files name the tree that they were built in"
fi

"$work/unpacked/bin/kab" sample --disks 1 "$work/group" >/dev/null
"$work/unpacked/bin/kab" info "$work/group/ssd.img" "$work/group/disk0.img" >"$work/info"
grep -q "$(cat "$work/group/disk0.uuid" 2>/dev/null || echo disk0)" "$work/info" || fail "kab info: $(cat "$work/info")"
