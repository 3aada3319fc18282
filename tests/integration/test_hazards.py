"""The hazards of docs/SECURITY.md: each test shows one in the appliance's build and shows it
closed in the hardened build (HOTPLUGD_HARDENED), so that it fails in either direction."""
import os
import re
import socket
import stat
import subprocess
import sys
import time
from pathlib import Path

from conftest import (HARDENED, HOTPLUGD, SERVER, SHARE, calls, partition_map,
                      request, settings, wait_for, write)


def as_user(uid, datagram):
    subprocess.run(["setpriv", f"--reuid={uid}", f"--regid={uid}", "--clear-groups", sys.executable,
                    "-c", "import socket; socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)."
                    f"sendto({datagram!r}, {SERVER!r})"], check=True)


def test_commands_and_forged_adds(disks, start, client):
    """Any user may unmount, add and stop, and an add may name another device than its paths.
    Hardened: commands from root only, adds only for the device their block directory names."""
    sdm, sdq = disks("m"), disks("q")
    for partition in (1, 2):
        sdm.plug(partition)
    sdq.plug(1)  # loop257: the node "sdq1" would get from its identifier
    d = start()
    client.send(sdm.event(1, 1))
    assert wait_for(lambda: partition_map(client, "sdm")[2][1] == 1)
    sdq1 = request(1, minor=16 * 16 + 1, major=7, block=str(sdm.block(1)))
    for what, send, disk, partition in [
            ("unmount by any user", lambda: as_user(65534, request(4, b"sdm")), "sdm", 1),
            ("add by any user", lambda: as_user(65534, sdm.event(1, 2)), "sdm", 2),
            ("add of another device", lambda: client.send(sdq1), "sdq", 1)]:
        before = partition_map(client, disk)[2][partition]
        send()
        time.sleep(3)  # the guard's second and the batch's quiet second
        assert (partition_map(client, disk)[2][partition] != before) == (not HARDENED), what
    as_user(65534, request(999))
    assert wait_for(lambda: d.proc.poll() is not None, 6) == (not HARDENED), "stop by any user"
    assert not HARDENED or client.ask(request(101)) is not None, "queries stay open to all"


def test_names_on_the_add_scripts_command_line(disks, start, client, tmp_path):
    """A name pattern written by another program may hold a backquoted command, which the add
    script's shell command line runs (device text never can). Hardened: no shell."""
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
    made = [re.sub(r"^\d+ +|\(.*", "", line) for line in trace.read_text().splitlines()]
    assert [c for c in made if c in ("fsync", "rename")] == (
        ["fsync", "rename", "fsync", "fsync"] if HARDENED else ["rename"])


def test_channel_set_up_leaves_what_is_not_its_own(start):
    """One that cannot bind removes whatever stood at its path, and the channel directory lets
    anyone replace another's socket. Hardened: neither."""
    write(SERVER, "another program's file\n")
    assert start(wait=False).wait() != 0 and os.path.exists(SERVER) == HARDENED
    Path(SERVER).unlink(missing_ok=True)
    start()
    assert bool(os.stat(os.path.dirname(SERVER)).st_mode & stat.S_ISVTX) == HARDENED


def test_queue_without_a_bound(start, client, tmp_path):
    """Adds wait their DMOUNT in the queue, and any user may send them: a flood grows the daemon
    without a bound. Hardened: at most 1024 wait, the rest are dropped."""
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
