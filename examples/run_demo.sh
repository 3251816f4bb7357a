#!/bin/sh
# A backup follows a disk image: hash both, find what differs, copy only that.
# Usage: run_demo.sh BUILD_DIRECTORY
set -eu
build=$(cd "$1" && pwd)
PATH=$build/tools:$build/examples:$PATH:/usr/sbin:/sbin
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

say() { printf '\n%s\n' "$1"; }
# Runs a command as a user would type it, and fails unless it ends with the exit code.
show() {
  expected=$1
  shift
  echo "\$ $*"
  code=0
  "$@" >output || code=$?
  if [ "$(wc -l <output)" -gt 6 ]; then
    { head -n 3 output; echo "... $(($(wc -l <output) - 4)) more lines ..."; tail -n 1 output; }
  else
    cat output
  fi
  [ "$code" -eq "$expected" ] || { echo "exit code $code instead of $expected"; exit 1; }
}

echo "An ext4 image of 256 MiB with files of this machine."
mkdir files
find /usr/bin /usr/lib /usr/share -xdev -type f -readable -size -16384k -printf '%s %p\n' 2>/dev/null |
  awk '{ size += $1; if (size > 160 * 1048576) exit; print substr($0, index($0, " ") + 1) }' |
  (cd files && xargs -d '\n' cp -p --parents -t . 2>/dev/null) || true
mke2fs -q -t ext4 -d files disk.img 256M >/dev/null
rm -rf files

say "The library: hashes of ranges. What is not known yet is read, the rest is not."
echo "\$ range_hash disk.img range.hashes"
range_hash disk.img range.hashes
cp --sparse=always disk.img backup.img

say "The program: a backup of the image, which then changes in 40 places."
i=0
while [ $i -lt 40 ]; do
  printf 'written on day %d' $i | dd of=disk.img bs=1 seek=$((i * 6700417 + 12345)) conv=notrunc status=none
  i=$((i + 1))
done

say "Hash both, once. Holes are not read."
show 0 kelvane-hash build disk.img
show 0 kelvane-hash build backup.img

say "Where do they differ? Known from the hashes, without reading the images again."
show 1 kelvane-hash diff disk.img backup.img

say "Copy that, and nothing else."
show 0 kelvane-hash sync disk.img backup.img
show 0 cmp disk.img backup.img
show 0 kelvane-hash diff disk.img backup.img

say "The backup's hashes are up to date, too: the hash of each image, from its hash file."
show 0 kelvane-hash hash disk.img
show 0 kelvane-hash hash backup.img

say "A second machine has yesterday's copy. Instead of ssh, a script leads to a directory that stands for it."
mkdir second
cp --sparse=always disk.img second/
i=0
while [ $i -lt 10 ]; do
  printf 'written on day %d, too' $i | dd of=disk.img bs=1 seek=$((i * 26700417 + 54321)) conv=notrunc status=none
  i=$((i + 1))
done
cat >there.sh <<'END'
#!/bin/sh
cd "$1" && shift && exec "$@"
END
chmod +x there.sh
(cd second && kelvane-hash build disk.img >/dev/null)
show 0 kelvane-hash sync disk.img second:disk.img --rsh ./there.sh
show 0 kelvane-hash diff disk.img second:disk.img --rsh ./there.sh
show 0 cmp disk.img second/disk.img

say "Not only files: a qcow2 of the image, served by QEMU over NBD. What changes through the export is copied, too."
qemu-img convert -f raw -O qcow2 disk.img disk.qcow2
qemu-nbd --fork --persistent --format=qcow2 --socket="$work/nbd" --pid-file=nbd.pid disk.qcow2
trap 'kill "$(cat nbd.pid)"; rm -rf "$work"' EXIT
export='nbd+unix:///?socket=nbd'
show 0 kelvane-hash build "$export" --hash-file qcow2.hashes
show 0 qemu-io -f raw -c 'write -q -P 7 5M 100k' "$export"
show 0 kelvane-hash sync "$export" second:disk.img --source-hash-file qcow2.hashes --rsh ./there.sh
show 0 qemu-img compare -f raw -F raw "$export" second/disk.img
