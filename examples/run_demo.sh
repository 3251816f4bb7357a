#!/bin/sh
# Makes a disk image from files of this machine and runs the range_hash example on it.
# Usage: run_demo.sh RANGE_HASH_PROGRAM
set -eu
program=$1
PATH=$PATH:/usr/sbin:/sbin
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
image=$work/disk.img

echo "Making an ext4 image of 256 MiB from files of this machine ..."
mkdir "$work/files"
find /usr/bin /usr/lib /usr/share -xdev -type f -readable -size -16384k -printf '%s %p\n' 2>/dev/null |
  awk '{ size += $1; if (size > 190 * 1048576) exit; print substr($0, index($0, " ") + 1) }' |
  (cd "$work/files" && xargs -d '\n' cp -p --parents -t . 2>/dev/null) || true
du -sh "$work/files" | awk '{ print "  " $1 " of files" }'
mke2fs -q -t ext4 -d "$work/files" "$image" 256M
rm -rf "$work/files"

"$program" "$image" "$work/disk.hashes"
