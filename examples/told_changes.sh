#!/bin/sh
# Changes told instead of searched: a machine's disk with a dirty bitmap of QEMU's, whose changes reach a backup on another
# machine without either image being read. told_changes.sh BUILD_DIRECTORY [DIRECTORY]; takes qemu-utils and libnbd-bin.
set -eu
PATH=$(cd "$1/tools" && pwd):$PATH
cd "${2:-$(mktemp -d)}"

step() { printf '\n%s\n' "$1"; }
show() { printf '$ %s\n' "$*"; "$@"; }

step 'The disk: its bytes in a raw file, which is the image; in the other one what QEMU notes about it.'
show qemu-img create -q -f qcow2 -o data_file=disk.raw,data_file_raw=on disk.qcow2 64M
show qemu-io -f qcow2 -c 'write -q -P 1 0 30M' disk.qcow2
# Instead of ssh, a script leads to a directory that stands for the other machine.
mkdir second
printf '#!/bin/sh\ncd "$1" && shift && exec "$@"\n' >there.sh
chmod +x there.sh
show kelvane-hash sync disk.raw second:backup.raw --rsh ./there.sh

step 'From now on what changes is noted.'
show qemu-img bitmap --add disk.qcow2 changes

step 'The machine writes.'
show qemu-io -f qcow2 -c 'write -q -P 7 5M 100k' -c 'write -q -P 8 40M 4k' disk.qcow2

step 'It is paused. What has changed since the bitmap was made?'
qemu-nbd --fork --read-only --format=qcow2 --bitmap=changes --socket="$PWD/nbd" --pid-file=nbd.pid disk.qcow2
echo '$ nbdinfo --map=qemu:dirty-bitmap:changes --json nbd+unix:///?socket=nbd >changes.json'
nbdinfo --map=qemu:dirty-bitmap:changes --json "nbd+unix:///?socket=$PWD/nbd" >changes.json
kill "$(cat nbd.pid)"

step 'That alone is read, compared and copied.'
show kelvane-hash sync disk.raw second:backup.raw --changes changes.json --rsh ./there.sh --json
show cmp disk.raw second/backup.raw

step 'The next time starts from here.'
show qemu-img bitmap --clear disk.qcow2 changes
