"""Faults from outside the daemon: full file systems, ROM devices that refuse, tools and
programs that hang or flood their output, a disk gone before it is probed. Through each it does
what its rules say, keeps answering, and keeps no descriptor or child it should not."""
import contextlib
import os
import subprocess
import time
from pathlib import Path

from conftest import (HARDENED, SHARE, calls, partition_map, request, settings,
                      wait_for, write)

CRIT = 26  # LOG_DAEMON | LOG_CRIT
CONF = Path("/etc/sysconfig/system.conf")
TMP = "/etc/sysconfig/dev"


def held(pid):
    """The daemon's open descriptors other than sockets (syslog connects on the first message),
    and its children with their names."""
    children, files = {}, 0
    for entry in os.listdir("/proc"):
        with contextlib.suppress(OSError, ValueError, IndexError):
            stat = Path(f"/proc/{entry}/stat").read_text()
            if int(stat.rsplit(")", 1)[1].split()[1]) == pid:
                children[int(entry)] = stat.split("(", 1)[1].rsplit(")", 1)[0]
    for fd in os.listdir(f"/proc/{pid}/fd"):
        with contextlib.suppress(OSError):  # closed meanwhile
            files += not os.readlink(f"/proc/{pid}/fd/{fd}").startswith("socket:")
    return files, children


# Outside programs that misbehave, chosen by the device node they are given.
DISKTYPE = """#!/bin/sh
case $1 in
    */sdx1) echo $$ >> /tmp/stuck; exec sleep 600 ;;
    */sdx[23]) echo "FAT32 file system" ;;
    *) exec /usr/bin/disktype "$@" ;;
esac
"""
MLABEL = """#!/bin/sh
case $2 in
    */sdx2) exec yes ;;
    */sdx3) exec >&-; echo $$ >> /tmp/stuck; exec sleep 600 ;;
esac
"""


def test_misbehaving_tools_and_programs(disks, start, client, tmp_path):
    """Tools that hang, flood or close their output (8 s each), a partition gone, an event program
    that hangs (15 s): everything else goes on; only the hanging programs stay behind."""
    write(tmp_path / "bin" / "disktype", DISKTYPE, 0o755)
    write(tmp_path / "bin" / "mlabel", MLABEL, 0o755)
    write("/tmp/hook", "#!/bin/sh\n[ -e /tmp/hook-ran ] && exit\ntouch /tmp/hook-ran\n"
          "echo $$ >> /tmp/stuck\nexec sleep 600\n", 0o755)  # stuck on its first call only
    sdx = disks("x")
    for partition in (1, 2, 3, 5):
        sdx.plug(partition)  # ext2 images; partition 4 has no device at all
    d = start(path=tmp_path / "bin")
    fds, children = held(d.proc.pid)
    began = time.monotonic()
    for partition in (1, 2, 3, 4, 5):
        client.send(sdx.event(1, partition))
    assert wait_for(lambda: "hotplug mount sdx5" in d.lines(), 40)
    probing = time.monotonic() - began
    assert 24.0 <= probing < 27.0, "8 s for each tool that hangs, no more"
    # All recorded (but, hardened, the vanished partition 4: it has no device). Unknown to
    # disktype or gone: tried as each file system (ext2 takes 1 and 5). Told FAT32: mounted as
    # FAT only, which fails on ext2.
    assert wait_for(lambda: partition_map(client, "sdx")[0] == (4 if HARDENED else 5), 5)
    assert partition_map(client, "sdx")[2][1:6] == [1, 0, 0, 0, 1]
    assert [c.split("|")[0] for c in calls() if c.startswith("usbmount")] == [
        f"usbmount add sdx {p} ext2 {SHARE}/Drive-{p}" for p in (1, 5)]
    hook_started = time.monotonic()  # AFTERMNT began with the records' mark
    assert client.ask(request(3, b"sdx"), 25) == bytes(128), "BEFOREMNT waited out, then done"
    assert 14.0 <= time.monotonic() - hook_started < 17.0
    for _ in range(5):  # each pass of the request server reaps one ended child
        client.ask(request(101))
    files, now = held(d.proc.pid)
    stuck = {int(pid) for pid in Path("/tmp/stuck").read_text().split()}
    assert files == fds and set(now) - set(children) == stuck, (files, now)
    os.system("kill $(cat /tmp/stuck)")


def test_letter_file_and_rom_that_fail(disks, start, client):
    """A letter file rewrite on a full TMPDIR or across file systems, a ROM that refuses the
    archive or the flush: logged, the file whole, the partition not taken, nothing kept."""
    sdy = disks("y", serial="FULL1")
    sdy.plug(1)
    os.makedirs("/tmp/full", exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4k", "full", "/tmp/full"], check=True)
    # Bigger than the 4 KiB that TMPDIR holds: the rewrite runs out of room.
    before = "DRIVE_LETTERA=\n#" + "x" * 8192 + "\n"
    written, write = before.replace("=", "=FULL1", 1), "sys config write(/etc/sysconfig/system.conf)\n"
    try:
        for batch, (args, rom, tmpdir, messages, letters) in enumerate([
                (["-f"], "null", "/tmp/full", [write], before),
                (["-f"], "null", "/tmp/dev", ["Rename config file fail master /etc/sysconfig/"
                                              "system.conf tmp /tmp/dev/conf.tmp.", write], before),
                (["-f", "-w"], "full", TMP,
                 ["config rom store(config /etc/sysconfig, rom /dev/kteeprom)\n"], written),
                (["-f", "-w"], "null", TMP, ["config flush cache(rom /dev/kteeprom)\n"], written)],
                1):
            settings(tmpdir=tmpdir)
            CONF.write_text(before)
            d = start(*args, rom=rom)
            fds, children = held(d.proc.pid)
            client.send(sdy.event(1, 1))
            crit = lambda: [text for pri, text in d.texts() if pri == CRIT]  # noqa: E731
            assert wait_for(lambda: len(crit()) == len(messages))
            assert [text[:len(m)] for text, m in zip(crit(), messages)] == messages
            assert CONF.read_text() == letters, "the old file stays whole"
            # Once the batch is over and its event program ran, nothing is kept.
            assert wait_for(lambda: sum(c.startswith("prog") for c in calls()) == batch, 5)
            time.sleep(0.3)
            assert partition_map(client, "sdy")[0] == 0, "not taken into service"
            assert held(d.proc.pid) == (fds, children), "no descriptor or child kept"
            d.close()
        assert [c for c in calls() if c.startswith("usbmount")] == []
    finally:
        subprocess.run(["umount", "-l", "/tmp/full"])
