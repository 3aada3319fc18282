#!/usr/bin/env bash
# The daemon's whole job in under a minute, inside the test sandbox: two loop-backed "USB disks"
# are plugged, listed, written to, safely removed (refused while data is unwritten), unplugged,
# and the daemon stopped. Run by scripts/run.sh; usage: demo.sh HOTPLUGD HOTPLUGCTL
set -euo pipefail
hotplugd=$1 ctl=$2
[ "${HOTPLUGD_SANDBOX:-}" = 1 ] || { echo "demo: run me inside scripts/sandbox/run" >&2; exit 1; }

work=$(mktemp -d /tmp/demo.XXXXXX)
out=$work/daemon.out
shown=0
loops=()
writer=""

cleanup() {
    [ -z "$writer" ] || kill "$writer" 2>/dev/null || true
    "$hotplugd" -k 2>/dev/null || true
    sleep 0.5
    umount -q -l /tmp/share/* 2>/dev/null || true
    for n in "${loops[@]+"${loops[@]}"}"; do
        losetup -d "/dev/loop$n" 2>/dev/null || true
        # The loop device this demo made goes again (LOOP_CTL_REMOVE).
        python3 -c "import fcntl, os; fcntl.ioctl(os.open('/dev/loop-control', os.O_RDWR), 0x4C81, $n)" \
            2>/dev/null || true
    done
}
trap cleanup EXIT

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
# What the daemon printed and logged since the last look.
daemon_said() {
    sleep "${1:-0}"
    tail -n +$((shown + 1)) "$out" | sed 's/^/   hotplugd| /'
    shown=$(wc -l < "$out")
}
show() { echo "\$ $*"; "$@"; }
fail() { echo "demo: FAILED: $*" >&2; exit 1; }

step "Settings: /var/etc/kelto/nas.conf, and the 26 letter keys of /etc/sysconfig/system.conf"
cat > /var/etc/kelto/nas.conf <<EOF
SHAREDIR=/tmp/share
TMPDIR=/etc/sysconfig/dev
PROG=/etc/scripts/event
DRVNAME=%V_%D
VLABEL=Disk-%D
MNTGID=100
DMOUNT=1
MAXPART=16
EOF
sed 's/^/   /' /var/etc/kelto/nas.conf
mkdir -p /etc/sysconfig/dev
for l in A B C D E F G H I J K L M N O P Q R S T U V W X Y Z; do echo "DRIVE_LETTER$l="; done \
    > /etc/sysconfig/system.conf
# The appliance's scripts and event program, here just saying how they were called.
for script in /etc/scripts/usbmount_helper.sh /etc/scripts/event /var/etc/kelto/hotplug_kill.sh; do
    printf '#!/bin/sh\necho "%s $* ${ACTION:+(ACTION=$ACTION)}"\n' "$(basename "$script")" > "$script"
    chmod 755 "$script"
done

step "hotplugd -f: drive letters remembered per serial number"
"$hotplugd" -f > "$out" 2>&1 &
for _ in $(seq 50); do [ -S /tmp/ktipc/ipc-hotplugd.sock ] && break; sleep 0.1; done
[ -S /tmp/ktipc/ipc-hotplugd.sock ] || fail "the daemon did not start"
echo "   running as pid $(cat /var/run/hotplugd.pid), socket /tmp/ktipc/ipc-hotplugd.sock"

step "Two USB disks on loop devices: sdj (Acme Photo Stick, ext3) and sdk (Globex Vault, ext2)"
# Each disk's sysfs as the kernel lays it out for a USB stick; partition p of disk index i is
# /dev/loop(16 i + p), so the daemon's node for it is that loop device.
usb=/devices/pci0000:00/0000:00:14.0/usb2
plug_disk() { # letter index serial vendor model mkfs
    local letter=$1 index=$2 serial=$3 vendor=$4 model=$5 mkfs=$6
    local dev=$usb/2-$index scsi=$usb/2-$index/2-$index:1.0/host$index/target$index:0:0/$index:0:0:0
    local root=/tmp/sys n=$((16 * index + 1))
    mkdir -p "$root$scsi/block/sd$letter/sd${letter}1"
    printf '%s\n' "$serial" > "$root$dev/serial"
    printf '0781\n' > "$root$dev/idVendor"; printf '5567\n' > "$root$dev/idProduct"
    printf '480\n' > "$root$dev/speed"
    printf '%s\n' "$vendor" > "$root$scsi/vendor"; printf '%s\n' "$model" > "$root$scsi/model"
    printf '1\n' > "$root$scsi/block/sd$letter/removable"
    truncate -s 32M "$work/sd$letter.img"
    $mkfs -q -F -I 128 "$work/sd$letter.img" >/dev/null 2>&1
    losetup "/dev/loop$n" "$work/sd$letter.img"
    loops+=("$n")
    cp "/sys/block/loop$n/size" "$root$scsi/block/sd$letter/sd${letter}1/size"
    echo "\$ ACTION=add SUBSYSTEM=block DEVNAME=sd${letter}1 MAJOR=7 DEVPATH=$scsi/block/sd$letter/sd${letter}1 hotplugctl --sysfs $root add"
    ACTION=add SUBSYSTEM=block DEVNAME=sd${letter}1 MAJOR=7 DEVTYPE=partition \
        DEVPATH=$scsi/block/sd$letter/sd${letter}1 "$ctl" --sysfs "$root" add
}
plug_disk j 9 AA0011223344 Acme "Photo Stick" mkfs.ext3
plug_disk k 10 BB5566778899 Globex Vault mkfs.ext2
echo "   (each is mounted after DMOUNT, a second, named by DRVNAME %V_%D from vendor, model and"
echo "   drive letter; the disks appear to clients once the batch ends)"
for _ in $(seq 60); do [ "$("$ctl" --json list)" != "[]" ] && [ "$("$ctl" --json list | grep -c '"disk"')" = 2 ] && break; sleep 0.2; done
daemon_said 0.5

step "What clients see"
show "$ctl" list
show "$ctl" info sdj
show "$ctl" --json part sdk 1
grep '^DRIVE_LETTER[AB]=.' /etc/sysconfig/system.conf | sed 's/^/   system.conf: /'
[ -n "$(ls /tmp/share)" ] || fail "nothing mounted"
echo "\$ ls /tmp/share"; ls /tmp/share | sed 's/^/   /'
share=/tmp/share/Acme_Photo_A1
mountpoint -q "$share" || fail "sdj is not mounted at $share"

step "Safe removal of sdj while a program keeps writing to it: refused"
( while :; do dd if=/dev/zero of="$share/busy.bin" bs=1M count=8 conv=notrunc 2>/dev/null; done ) &
writer=$!
sleep 0.5
set +e
show "$ctl" umount sdj; status=$?
set -e
echo "   exit status $status"
[ "$status" = 1 ] || fail "the removal was not refused"
kill "$writer"; wait "$writer" 2>/dev/null || true; writer=""
daemon_said 2.5

step "The writer stopped: safe removal of sdj accepted"
status=1
for _ in 1 2 3 4 5; do
    sync
    if show "$ctl" umount sdj; then status=0; break; fi
    sleep 3 # other programs' data in flight: ask again
done
[ "$status" = 0 ] || fail "the removal was never accepted"
mountpoint -q "$share" && fail "sdj still mounted"
daemon_said 2.5
show "$ctl" parts sdj

step "sdj pulled out, sdk unplugged too"
for letter in j k; do
    echo "\$ ACTION=remove SUBSYSTEM=block DEVNAME=sd${letter}1 MAJOR=7 hotplugctl remove"
    ACTION=remove SUBSYSTEM=block DEVNAME=sd${letter}1 MAJOR=7 "$ctl" remove
done
for _ in $(seq 40); do [ "$("$ctl" --json list)" = "[]" ] && break; sleep 0.2; done
[ "$("$ctl" --json list)" = "[]" ] || fail "the disks are still listed"
daemon_said 2.5

step "hotplugd -k: stop"
show "$hotplugd" -k
for _ in $(seq 60); do [ -e /tmp/ktipc/ipc-hotplugd.sock ] || break; sleep 0.1; done
sleep 0.3
daemon_said
[ ! -e /tmp/ktipc/ipc-hotplugd.sock ] || fail "the daemon did not stop"
echo
echo "demo: every step did what it showed"
