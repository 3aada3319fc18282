"""The hazards of docs/SECURITY.md: each test shows one in the appliance's build and shows it
closed in the hardened build (HOTPLUGD_HARDENED), so that it fails in either direction."""
import os
import re
import socket
import stat
import struct
import time
from pathlib import Path

from conftest import (HARDENED, HOTPLUGD, SERVER, SHARE, calls, need_sandbox, request, settings,
                      wait_for, write)


def as_user(uid, datagram):
    """Sends `datagram` to the daemon from a process of user `uid`."""
    pid = os.fork()
    if pid == 0:
        try:
            os.setgid(uid)
            os.setuid(uid)
            s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
            s.sendto(datagram, SERVER)
        finally:
            os._exit(0)
    os.waitpid(pid, 0)


def partitions(client, disk):
    """Present and mounted flags of partitions 0 to 15 of `disk`, as clients see them."""
    reply = client.ask(request(103, disk.encode()))
    return struct.unpack("<I16B16B", reply)[1:] if reply else None


def test_commands_and_forged_adds(disks, start, client, tmp_path):
    """Any user may unmount, add and stop, and an add's numbers may name another device than
    its sysfs paths: the hardened daemon takes commands from root only, and adds only for the
    device their block directory names."""
    need_sandbox()
    settings()
    sdm, sdq = disks("m"), disks("q")
    for partition in (1, 2):
        sdm.plug(partition)
    sdq.plug(1)  # loop257: the node "sdq1" would get from its identifier
    meminfo = tmp_path / "meminfo"
    meminfo.write_text("Dirty: 0 kB\n")
    d = start(meminfo=meminfo)
    client.send(sdm.event(1, 1))
    assert wait_for(lambda: (partitions(client, "sdm") or [0] * 32)[16 + 1] == 1)
    sdq1 = request(1, minor=16 * 16 + 1, major=7, block=f"/sys/block/loop{sdm.minor(1)}")
    for what, send, disk, shown in [
            ("unmount by any user", lambda: as_user(65534, request(4, b"sdm")), "sdm", 16 + 1),
            ("add by any user", lambda: as_user(65534, sdm.event(1, 2)), "sdm", 16 + 2),
            ("add of another device", lambda: client.send(sdq1), "sdq", 16 + 1)]:
        before = partitions(client, disk)[shown]
        send()
        time.sleep(3)  # the guard's second and the batch's quiet second
        after = partitions(client, disk)[shown]
        assert (after != before) == (not HARDENED), what
    as_user(65534, request(999))
    assert wait_for(lambda: d.proc.poll() is not None, 6) == (not HARDENED), "stop by any user"
    if HARDENED:  # queries stay open to all
        assert client.ask(request(101)) is not None


def test_names_on_the_add_scripts_command_line(disks, start, client, tmp_path):
    """Drive names stand in double quotes on the add script's shell command line. Device text
    reaches them only as letters and digits, or as a label without quotes, backquotes,
    backslashes and "$"; but a name pattern written by another program can hold a backquoted
    command, which the shell runs. Hardened: no shell."""
    need_sandbox()
    write(tmp_path / "bin" / "pwned", "#!/bin/sh\necho pwned >> /tmp/calls.log\n", 0o755)
    settings(drvname="`pwned`-%V-%D")
    sdn = disks("n", vendor="`pwned`")
    sdn.plug(1)
    start(path=tmp_path / "bin")
    client.send(sdn.event(1, 1))
    assert wait_for(lambda: any(c.startswith("usbmount") for c in calls()), 10)
    ran = "pwned" in calls()
    script = next(c for c in calls() if c.startswith("usbmount")).split("|")[0]
    assert ran == (not HARDENED)
    assert script.startswith(f"usbmount add sdn 1 ext2 {SHARE}/{'' if ran else '`pwned`'}-pwned_")


def test_letter_file_reaches_the_disk_before_it_replaces_the_old(disks, start, client, tmp_path):
    """The rewrite of system.conf renames a file never synced: after a power cut it may be
    empty or missing. Hardened: the file's data, then the directory entries, are synced."""
    need_sandbox()
    settings(tmpdir="/etc/sysconfig/dev")  # a rename within one file system
    Path("/etc/sysconfig/system.conf").write_text("DRIVE_LETTERA=\n")
    sdo = disks("o", serial="SYNC1")
    sdo.plug(1)
    trace = tmp_path / "trace"
    d = start("-qq", "-f", "-o", str(trace), "-e", "trace=fsync,rename", str(HOTPLUGD), "-f",
              exe="/usr/bin/strace", rom="null")
    client.send(sdo.event(1, 1))
    assert wait_for(lambda: "SYNC1" in Path("/etc/sysconfig/system.conf").read_text(), 10)
    d.stop()  # killing strace would leave the daemon running
    calls_made = [re.sub(r"^\d+ +|\(.*", "", line) for line in trace.read_text().splitlines()]
    order = [c for c in calls_made if c in ("fsync", "rename")]
    assert order == (["fsync", "rename", "fsync", "fsync"] if HARDENED else ["rename"])


def test_channel_set_up_leaves_what_is_not_its_own(start):
    """A daemon that cannot bind its socket removes whatever file stood at the path; and any
    user may replace another's socket in the channel directory. Hardened: neither."""
    need_sandbox()
    settings()
    write(SERVER, "another program's file\n")
    d = start(wait=False)
    assert d.wait() != 0
    assert os.path.exists(SERVER) == HARDENED
    if os.path.exists(SERVER):
        os.unlink(SERVER)
    start()
    assert bool(os.stat(os.path.dirname(SERVER)).st_mode & stat.S_ISVTX) == HARDENED


def test_queue_without_a_bound(start, client, tmp_path):
    """Adds wait their DMOUNT in the queue, and any user may send them: a flood grows the daemon
    without a bound. Hardened: at most 1024 wait, the rest are dropped."""
    need_sandbox()
    settings(dmount=3600)
    d = start()
    status = Path(f"/proc/{d.proc.pid}/status")
    rss = lambda: int(re.search(r"VmRSS:\s+(\d+)", status.read_text())[1])  # noqa: E731
    before = rss()
    # Each names its device, as the hardened build wants of an add.
    write(tmp_path / "block" / "dev", f"7:{16 * 25 + 1}\n")
    add = request(1, minor=16 * 25 + 1, major=7, block=str(tmp_path / "block"))
    sender = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    for _ in range(20_000):
        sender.sendto(add, SERVER)
    assert client.ask(request(101), 10) is not None, "still answering"
    assert (rss() - before > 4096) == (not HARDENED), rss() - before
