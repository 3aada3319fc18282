"""Real USB sticks in real kernels: test machines of x86_64 (with the native build) and of MIPS
Malta (with the appliance build) run the daemon and hotplugctl while QMP plugs and pulls sticks
(scripts/vm/machine.py). The kernel announces them over its uevent socket; the real disktype and
mlabel probe them."""
import json
import os
import shutil
import subprocess
import sys
import time
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts" / "vm"))
import machine  # noqa: E402

BUILDS = {"x86_64": Path(os.environ.get("HOTPLUGD_BUILD_DIR", ROOT / "build")),
          "mipsel": ROOT / "build-mipsel-release"}
RECORDER = '#!/bin/sh\necho "{name} $*" >> /tmp/calls.log\n'
SETUP = r"""
mkdir -p /var/etc/kelto /etc/sysconfig/dev /etc/scripts /tmp/ktipc /var/lock /mnt/share
printf '%s\n' SHAREDIR=/mnt/share TMPDIR=/etc/sysconfig/dev PROG=/host/prog DRVNAME=Drive-%D \
    MNTGID=100 DMOUNT=0 MAXPART=16 > /var/etc/kelto/nas.conf
for l in A B C D E F G H I J K L M N O P Q R S T U V W X Y Z; do echo DRIVE_LETTER$l=; done > /etc/sysconfig/system.conf
cp /host/usbmount /etc/scripts/usbmount_helper.sh
cp /host/kill /var/etc/kelto/hotplug_kill.sh
mknod /dev/kteeprom c 1 3
"""
VFAT = ("rw,relatime,gid=100,fmask=0111,dmask=0000,allow_utime=0022,codepage=437,iocharset=utf8,"
        "shortname=mixed,utf8,errors=remount-ro")


def until(m, condition, timeout=30):  # in the guest's shell
    m.sh(f"i=0; until {condition} || [ $i -ge {timeout * 5} ]; do i=$((i + 1)); sleep 0.2; "
         f"done; {condition}", timeout=timeout + 30)


def mounts(m):
    return sorted(line.split()[1:4] for line in m.sh("cat /proc/mounts").splitlines()
                  if "/mnt/share" in line)


def calls(m):
    return m.sh("cat /tmp/calls.log; : > /tmp/calls.log").splitlines()


@pytest.fixture
def sticks(tmp_path):
    """A FAT32 stick without partitions, and an MBR stick with a FAT32 and an ext2 partition."""
    a, b = tmp_path / "a.img", tmp_path / "b.img"
    subprocess.run(f"truncate -s 40M {a} && mkfs.vfat -F 32 -n PHOTOS {a} && truncate -s 64M {b}"
                   f" && printf 'label: dos\\nstart=2048, size=40M, type=c\\ntype=83\\n' | "
                   f"sfdisk -q {b} && mkfs.vfat -F 32 --offset 2048 {b} 40960 && "
                   f"mke2fs -q -F -t ext2 -I 128 -E offset={83968 * 512} {b} 23M",
                   shell=True, check=True, capture_output=True)
    return a, b


@pytest.mark.parametrize("arch", ["x86_64", "mipsel"])
def test_sticks_plugged_used_and_pulled(arch, sticks, tmp_path):
    build = BUILDS[arch]
    if not (build / "daemon" / "hotplugd").exists():
        pytest.fail(f"{build} is not built")
    share = tmp_path / "share"
    (share / "bin").mkdir(parents=True)
    for program in ("daemon/hotplugd", "client/hotplugctl"):
        shutil.copy(build / program, share / "bin")
    for name in ("usbmount", "kill", "prog"):
        (share / name).write_text(RECORDER.format(name=name))
        os.chmod(share / name, 0o755)
    m = machine.Machine(arch, tmp_path / "machine", share)
    try:
        m.sh(SETUP)
        m.sh("hotplugd -D -f && (hotplugctl listen > /tmp/listen.log 2>&1 &)")
        # Plugged one after the other: one batch, and one AFTERMNT, each.
        for ident, image, serial, disk in [("a", sticks[0], "SN-A001", "sda"),
                                           ("b", sticks[1], "SN-B002", "sdb")]:
            m.plug(ident, image, serial, disk)
            until(m, f"hotplugctl list | grep -q {disk}")
        assert mounts(m) == [["/mnt/share/Drive-A0", "vfat", VFAT],
                             ["/mnt/share/Drive-B1", "vfat", VFAT],
                             ["/mnt/share/Drive-B2", "ext2", "rw,relatime"]]
        assert calls(m) == ["usbmount add sda 0 vfat32 /mnt/share/Drive-A0", "prog ",
                            "usbmount add sdb 1 vfat32 /mnt/share/Drive-B1",
                            "usbmount add sdb 2 ext2 /mnt/share/Drive-B2", "prog "]
        listed = json.loads(m.sh("hotplugctl --json list"))
        assert [(d["disk"], d["serial"], d["vendor"], d["model"], d["id_vendor"], d["id_product"],
                 d["removable"]) for d in listed] == [
            (disk, serial, "QEMU", "QEMU HARDDISK", "46f4", "0001", True)
            for disk, serial in (("sdb", "SN-B002"), ("sda", "SN-A001"))]
        assert m.sh("cat /tmp/listen.log") == ("add sda (major 8, id 0)\nadd sdb (major 8, id 16)"
                                               "\nadd sdb1 (major 8, id 17)\nadd sdb2 (major 8, id 18)\n")

        # Safe removal: refused while a writer keeps the page cache dirty, done after a sync.
        m.sh("sh -c 'until [ -e /tmp/stop ]; do dd if=/dev/zero of=/mnt/share/Drive-A0/fill "
             "bs=64k count=64 2>/dev/null; done' & sleep 1")
        assert m.sh("hotplugctl umount sda; echo $?", check=False).endswith("\n1\n")
        m.sh("touch /tmp/stop; wait; sync")
        assert m.sh("hotplugctl umount sda") == "unmounted sda: safe to remove\n"
        assert "/mnt/share/Drive-A0" not in str(mounts(m))
        assert [c for c in calls(m) if c.startswith("kill")][:1] == ["kill stop 1"]

        # Pulled with a file open on it: detached at once, its records gone, the daemon answers.
        m.sh("echo kept > /mnt/share/Drive-B2/open; sync; exec 3</mnt/share/Drive-B2/open")
        m.qmp.pull("b")
        until(m, "! hotplugctl list | grep -q sdb")
        assert mounts(m) == []

        # A new daemon (-D returns before it has a socket) knows nothing of the stick left in.
        m.sh("exec 3<&-; kill $(pidof hotplugctl); hotplugctl stop && hotplugd -D -f && "
             "until [ -S /tmp/ktipc/ipc-hotplugd.sock ]; do sleep 0.1; done")
        assert m.sh("hotplugctl list").count("\n") == 1, "the header alone"
        assert m.sh("hotplugctl scan") == "add sda (major 8, id 0)\n"
        until(m, "hotplugctl list | grep -q sda")
        assert [p[0] for p in mounts(m)] == ["/mnt/share/Drive-A0"], "with its letter"
        # A listener scans for a daemon that replaced the one it knew.
        m.sh("(hotplugctl listen > /tmp/listen.log 2>/dev/null &); sleep 1; hotplugctl stop; "
             "hotplugd -D -f")
        until(m, "grep -q 'add sda' /tmp/listen.log")
        until(m, "hotplugctl list | grep -q sda")
        assert m.sh("cat /tmp/listen.log") == ("hotplugd is up: announcing the disks present\n"
                                               "add sda (major 8, id 0)\n")

        # Stopped with the stick mounted: unmounted within the grace period.
        began = time.monotonic()
        m.sh("hotplugd -k; while pidof hotplugd >/dev/null; do sleep 0.1; done", timeout=30)
        assert time.monotonic() - began < 10
        assert mounts(m) == []
    finally:
        m.close()
