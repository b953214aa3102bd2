#!/usr/bin/env bash
# Installs a build into a prefix of its own, builds the examples there by find_package and by pkg-config, and runs
# them on a sample group.
#   consumer.sh BUILD SOURCE SAMPLE_GROUP
set -euo pipefail
build=$1
source=$2
sampleGroup=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() {
  echo "consumer.sh: $*" >&2
  exit 1
}
says() {  # says TEXT COMMAND...: the command succeeds and its output holds the text
  local text=$1 output
  shift
  output=$("$@" 2>&1) || fail "$* failed: $output"
  grep -qF -- "$text" <<<"$output" || fail "$* does not say \"$text\": $output"
}

cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$prefix"  # what is installed may be moved

config=$(find "$prefix" -name kab-config.cmake)
libdir=$(dirname "$(find "$prefix" -name kab.pc)")/..
libdir=$(cd "$libdir" && pwd)
[ -n "$config" ] || fail "kab-config.cmake was not installed"
[ "$(readlink "$libdir/libkab.so")" = libkab.so.0 ] || fail "libkab.so does not lead to libkab.so.0"
soname=$(readelf -d "$libdir/libkab.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = libkab.so.0 ] || fail "the soname is $soname"
if grep -rlF -e "$source" -e "$build" "$prefix" --include='*.cmake' --include='*.pc' --include='*.h'; then
  fail "these files name the tree that they were built in"
fi

mkdir "$work/group"
"$sampleGroup" "$work/group"
group=("$work/group/ssd.img" "$work/group/disk0.img" "$work/group/disk1.img")

# A C program, by pkg-config alone: headers, library and what the library needs.
export PKG_CONFIG_PATH=$libdir/pkgconfig
read -ra flags <<<"${CFLAGS:-} $(pkg-config --cflags --libs kab)"
"${CC:-cc}" -std=c11 -Wall -Wextra -Werror "$source/examples/group.c" -o "$work/group-pc" "${flags[@]}"
outside=${LD_LIBRARY_PATH:-}  # set where the tool was built without a run path
export LD_LIBRARY_PATH=$libdir
says "2 disks attached" "$work/group-pc" "${group[@]}"
export LD_LIBRARY_PATH=$outside

# The examples as a project of their own, by find_package alone.
unset PKG_CONFIG_PATH
cmake -S "$source/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build "$work/examples" >/dev/null
says "2 disks attached" "$work/examples/group" "${group[@]}"
"$prefix/bin/kab" -q sample --layout orlo-log "$work/orlo"
for uuid in $("$prefix/bin/kab" component list --json "$work"/orlo/ssd.img "$work"/orlo/disk?.img |
  sed -n 's/.*"uuid":"\([-0-9a-f]*\)".*/\1/p'); do
  says "$uuid" "$work/examples/components" "$work"/orlo/ssd.img "$work"/orlo/disk?.img
done
[ -n "$uuid" ] || fail "the sample group has no components"
says "Successful" "$work/examples/dump_head" "${group[1]}" "$work/head.dump" 4194304
"$work/examples/group" "${group[0]}" "${group[0]}" >/dev/null 2>&1 && fail "an SSD was taken for a capacity disk"
"$work/examples/group" "$work/head.dump" >/dev/null 2>&1 && fail "a dump was taken for an SSD"

# The manual pages and completions lie where man and the shells look.
for file in share/man/man1/kab.1 share/man/man1/kab-dump.1 share/bash-completion/completions/kab \
  'share/zsh/*/_kab' share/fish/vendor_completions.d/kab.fish; do
  [ -n "$(find "$prefix" -path "$prefix/$file" -size +0)" ] || fail "$file was not installed"
done

# What the documents that were installed show and name among docs/ was installed too.
readme=$(find "$prefix" -path '*/doc/kab/README.md')
for link in $(grep -oE '\]\(docs/[^)#]+\.(md|svg|json)' "$readme" | cut -c3- | sort -u); do
  [ -s "$(dirname "$readme")/$link" ] || fail "README.md leads to $link, which was not installed"
done
[ -n "${link:-}" ] || fail "README.md has no links"

# The Python example, with the package and the library that were installed. An interpreter that knows nothing of the
# sanitizers cannot load a library that was built with them.
if [ -z "${CFLAGS:-}" ]; then
  data=$(dd if="${group[1]}" bs=1M skip=3 count=1 status=none | sha256sum | cut -d' ' -f1)
  export PYTHONPATH LD_LIBRARY_PATH=$libdir PYTHONDONTWRITEBYTECODE=1
  PYTHONPATH=$(dirname "$(find "$prefix" -path '*/kab/py.typed' | xargs dirname)")
  says " $data" python3 "$source/examples/head.py" "${group[@]}"
  export LD_LIBRARY_PATH=$outside
fi

# The NBD plugin, where it was built: it finds its library, and the tool finds it.
plugin=$libdir/nbdkit/plugins/nbdkit-kab-plugin.so
if [ -f "$plugin" ] && [ -z "${CFLAGS:-}" ] && command -v nbdkit >/dev/null; then
  says "name=kab" nbdkit "$plugin" --dump-plugin
  grep -qF "cannot open" <<<"$("$prefix/bin/kab" serve --port 0 "$work/none" 2>&1)" || fail "kab does not find its plugin"
fi

# zlib and LZ4 come with kab::kab: a consumer calls them without naming them.
mkdir "$work/peers"
cat >"$work/peers/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.18)
project(peers LANGUAGES C)
find_package(kab REQUIRED)
add_executable(peers peers.c)
target_link_libraries(peers PRIVATE kab::kab)
END
cat >"$work/peers/peers.c" <<'END'
#include <kab/kab.h>
#include <lz4.h>
#include <stdio.h>
int main(void) {
  printf("%s %d %s\n", zlibVersion(), LZ4_versionNumber() > 0, KABErrorStr(KAB_OK));
  return 0;
}
END
cmake -S "$work/peers" -B "$work/peers/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/peers/build" >/dev/null
says "1 Successful" "$work/peers/build/peers"

# A version that is not there is refused.
sed -i 's/find_package(kab REQUIRED)/find_package(kab 99 REQUIRED)/' "$work/peers/CMakeLists.txt"
cmake -S "$work/peers" -B "$work/peers/build99" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null 2>&1 &&
  fail "find_package(kab 99) succeeded"
exit 0
