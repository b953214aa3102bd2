#!/usr/bin/env bash
# The main job from one end to the other, on a sample group: make, show, dump, verify, extract, compare.
#   scripts/demo.sh KAB
set -euo pipefail
kab=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

say() { printf '\n== %s\n' "$*"; }
run() {
  printf '$ kab %s\n' "$*"
  "$kab" "$@"
}
# same FILE FILE OFFSET LENGTH
same() {
  cmp --ignore-initial="$3" --bytes="$4" "$1" "$2"
  echo "   $4 bytes at $3 of $1 and $2 are the same"
}
MiB=$((1 << 20))

say "A group of one SSD and three disks; disk 1 is encrypted (and kept in clear beside it, to compare with)"
run sample --disks 3 --encrypt 1 --with-clear --disk-size 32M group
key="$(cat group/disk1.uuid)=group/disk1.key"
disks="group/ssd.img group/disk0.img group/disk1.img group/disk2.img"

say "Without its key the encrypted disk does not open"
if run info $disks; then
  echo "an encrypted disk opened without a key" >&2
  exit 1
fi
run --key-file "$key" info $disks

say "Dumping: the SSD's metadata, two ranges of disk 0, two of the encrypted disk"
run dump -o ssd.kabdump group/ssd.img
run --key-file "$key" dump -o disk0.kabdump --disk 0 --range 1M:4K --range 3M:1M $disks
run --key-file "$key" dump -o disk1.kabdump --disk 1 --range 1M:4K --range 3M:20M $disks

say "Verifying, and what a spoilt dump looks like"
run verify ssd.kabdump disk0.kabdump disk1.kabdump
cp disk0.kabdump spoilt.kabdump
printf '\377' | dd of=spoilt.kabdump bs=1 seek=45 conv=notrunc status=none
status=0
run verify spoilt.kabdump || status=$?
[ "$status" = 6 ] || { echo "a spoilt digest gave exit status $status" >&2; exit 1; }

say "Extracting onto new images"
run extract disk0.kabdump disk0-copy.img
run extract disk1.kabdump disk1-copy.img

say "Comparing"
same group/disk0.img disk0-copy.img $((1 * MiB)) 4096
same group/disk0.img disk0-copy.img $((3 * MiB)) $((1 * MiB))
same group/disk1.clear.img disk1-copy.img $((1 * MiB)) 4096
same group/disk1.clear.img disk1-copy.img $((3 * MiB)) $((20 * MiB))
if cmp --quiet --ignore-initial=$((3 * MiB)) --bytes=4096 group/disk1.img disk1-copy.img; then
  echo "the encrypted disk lies in clear" >&2
  exit 1
fi

say "Reading the encrypted disk directly gives the same bytes"
run --key-file "$key" read --disk 1 --range 3M:20M -o read.bin $disks
cmp --ignore-initial=0:$((3 * MiB)) --bytes=$((20 * MiB)) read.bin disk1-copy.img
run --key-file "$key" read --disk 1 --range 4M:64 --hex $disks

say "All as it should be"
