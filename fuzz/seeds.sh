#!/usr/bin/env bash
# Makes the fuzz targets' seed corpora in DIR/<target>/ from real tools' output and real files.
#
# usage: fuzz/seeds.sh DIR
# disktype, mlabel and ntfslabel read small images made by mkfs.vfat, mke2fs, mkntfs, mkswap
# and sfdisk (files, no loop devices); the settings and letter files are those the README
# shows; events are the kernel's variables for a USB disk; datagrams and replies are packed
# as the black-box tests pack them.
set -euo pipefail
out=$(realpath -m "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
for t in receive ktcfg sysconf probe_text utf8 drivename proc_words sysfs uevent reply; do
    rm -rf "${out:?}/$t" && mkdir -p "$out/$t"
done

# Media: a FAT12, a FAT32, ext2, ext3, NTFS with a UTF-8 label, swap, MBR and GPT disks.
mkfs.vfat -C fat12.img 2048 -n USBSTICK >/dev/null
truncate -s 34M fat32.img && mkfs.vfat -F 32 -n 'DATA 32' fat32.img >/dev/null
truncate -s 4M ext2.img && mke2fs -q -I 128 -t ext2 -L backup ext2.img >/dev/null 2>&1
truncate -s 8M ext3.img && mke2fs -q -I 128 -j -L photos ext3.img >/dev/null 2>&1
truncate -s 8M ntfs.img && mkntfs -q -F -f -L 'Données été' ntfs.img >/dev/null 2>&1
truncate -s 1M swap.img && mkswap -q swap.img
truncate -s 40M mbr.img && printf 'label: dos\n,20M,c\n,10M,83\n,,5\n' | sfdisk -q mbr.img
truncate -s 40M gpt.img && printf 'label: gpt\n,1M\n,,\n' | sfdisk -q gpt.img
for img in *.img; do
    disktype "$img" >"$out/probe_text/${img%.img}" 2>&1
done
mlabel -i fat12.img -s :: >label-fat12
mlabel -i fat32.img -s :: >label-fat32
ntfslabel ntfs.img >label-ntfs 2>/dev/null
for l in label-*; do
    cp "$l" "$out/probe_text/$l"
    { printf '\x7a'; cat "$l"; } >"$out/utf8/$l"   # a limit of 122, as labels are cut
    { printf '\x08'; cat "$l"; } >"$out/utf8/$l-8"
done

# The settings file and the letter file as the README and the demonstration write them.
printf '%s\n' SHAREDIR=/tmp/share TMPDIR=/etc/sysconfig/dev PROG=/etc/scripts/event \
    'DRVNAME=%V_%D' 'VLABEL=Disk-%D' MNTGID=100 DMOUNT=1 MAXPART=16 >"$out/sysconf/nas.conf"
grep -v VLABEL "$out/sysconf/nas.conf" | sed 's/%V_%D/USB%D/' >"$out/sysconf/nas-no-label.conf"
for l in {A..Z}; do echo "DRIVE_LETTER$l="; done >system.conf
{ cat system.conf; printf '\0DRIVE_LETTERA=60A44C413A8CF0B1F9A3016E'; } >"$out/ktcfg/new-letter"
{ sed 's/^DRIVE_LETTERA=$/DRIVE_LETTERA=60A44C413A8CF0B1F9A3016E/' system.conf
  printf '[network]\nHOSTNAME=nas\n\0DRIVE_LETTERB=AA00000000012345\nHOSTNAME'; } >"$out/ktcfg/sections"

# Drive names: flags, serial, vendor, model, the labels the tools printed, DRVNAME, VLABEL.
i=0
for l in label-*; do
    for flags in '\x12' '\x13' '\x10'; do
        { printf "$flags%s\0Kingston\0DataTraveler 3.0\0" 60A44C413A8CF0B1F9A3016E
          tr -d '\n' <"$l"; printf '\0%%V_%%D\0Disk-%%D'; } >"$out/drivename/$((i++))"
    done
done

# Command lines the mount thread runs.
i=0
for c in 'disktype /etc/sysconfig/dev/sdb1' 'mlabel -i /etc/sysconfig/dev/sdb1 -s ::' \
    'ntfsvlabel /etc/sysconfig/dev/sdc1' '/etc/scripts/event' \
    "/bin/sh -c \"echo 'two words' \\\"quoted\\\"\""; do
    printf '%s' "$c" >"$out/proc_words/$((i++))"
done

# Attributes of a USB stick: serial ... speed of the USB device, vendor and model of its SCSI
# device (padded as the kernel pads them), removable and size of its block device.
printf '%s\n\0' 60A44C413A8CF0B1F9A3016E Kingston 'DataTraveler 3.0' 0951 1666 480 \
    'Kingston' 'DataTraveler 3.0' 1 30277632 >"$out/sysfs/kingston"
printf '%s\n\0' '' '' '' 0781 5583 1.5 'SanDisk ' 'Ultra Fit       ' 0 >"$out/sysfs/no-serial"

# Events as the kernel sends them for a USB disk and its partition (DEVPATH below /sys).
dev=/devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host6/target6:0:0/6:0:0:0/block/sdb
for e in "add $dev/sdb1 sdb1 17 partition PARTN=1" "remove $dev/sdb1 sdb1 17 partition PARTN=1" \
    "add $dev sdb 16 disk" "change $dev sdb 16 disk DISK_MEDIA_CHANGE=1"; do
    set -- $e
    printf '%s\0' "ACTION=$1" "DEVPATH=$2" SUBSYSTEM=block MAJOR=8 "MINOR=$4" "DEVNAME=$3" \
        "DEVTYPE=$5" ${6:+"$6"} SEQNUM=4711 >"$out/uevent/$1-$3"
done
printf '%s\0' ACTION=add "DEVPATH=$dev/sdb1" SUBSYSTEM=block MAJOR=8 MINOR=17 \
    DEVNAME=/dev/sdb1 DEVTYPE=partition >"$out/uevent/udev"
printf '%s\0' ACTION=add "DEVPATH=$dev/sdb1" SUBSYSTEM=block MAJOR=8 MINOR=17 MDEV=sdb1 \
    >"$out/uevent/mdev"

# Request datagrams and the daemon's replies, packed as the black-box tests pack them.
/usr/bin/python3 - "$out" "$dev" <<'EOF'
import struct, sys
out, dev = sys.argv[1], sys.argv[2]
usb = "/sys" + dev.split("/2-1:1.0")[0]
scsi, block = "/sys" + dev.split("/block")[0], "/sys" + dev + "/sdb1"
def event(kind, minor, paths=True):
    return struct.pack("<iHH4x128s128s128sIII8x", kind, 8, minor, *(p.encode() if paths else b""
                       for p in (usb, scsi, block)), 0, 0, 0)
seeds = {
    "receive/add": event(1, 17), "receive/remove": event(2, 17, False),
    "receive/mount": struct.pack("<i", 3) + b"sdb", "receive/umount-all": struct.pack("<i", 4) + b"all",
    "receive/list": struct.pack("<i", 101), "receive/disk": struct.pack("<i", 102) + b"sdb",
    "receive/map": struct.pack("<i", 103) + b"sdb", "receive/part": struct.pack("<iB", 104, 1) + b"sdb",
    "receive/stop": struct.pack("<i", 999) + bytes(124),
    "reply/list": b"sdb\0\0\0\0\0sdc\0\0\0\0\0",
    "reply/disk": struct.pack("<256sHH256s256siIIII256s256s", b"60A44C413A8CF0B1F9A3016E", 0x0951,
                              0x1666, b"Kingston", b"DataTraveler 3.0", 480, 0, 0, 0, 1,
                              b"Kingston", b"DataTraveler 3.0"),
    "reply/map": struct.pack("<I16B16B", 2, *[0, 1, 1] + [0] * 13, *[0, 1] + [0] * 14),
    "reply/part": struct.pack("<128s128s8sIIIiI", "Données été".encode(), b"Kingston_B1", b"B1",
                              0, 14768, 2, 21, 1),
    "reply/done": bytes(128), "reply/refused": struct.pack("<i", 1) + bytes(124),
}
for name, data in seeds.items():
    open(f"{out}/{name}", "wb").write(data)
EOF
