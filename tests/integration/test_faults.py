"""Faults from outside the daemon: killed while it rewrites its letter file, full and read-only
file systems, ROM devices that refuse, scripts that are missing, tools and programs that hang
or flood their output, a disk gone before it is probed. Through each it does what its rules
say, keeps answering, and keeps no descriptor or child it should not. Figures go to the test
log as "[ figures ]" lines. (Hostile datagrams: fuzz/; a flood of them: bench/.)"""
import fcntl
import os
import random
import struct
import subprocess
import time
from pathlib import Path

from conftest import BUILD, HARDENED, SERVER, SHARE, calls, need_sandbox, request, settings, wait_for, write

CRIT = 26  # LOG_DAEMON | LOG_CRIT
CONF = Path("/etc/sysconfig/system.conf")
TMP = "/etc/sysconfig/dev"
LETTERS = [f"DRIVE_LETTER{chr(ord('A') + i)}" for i in range(26)]


def held(pid):
    """The daemon's open descriptors other than sockets (syslog connects on the first message),
    and its children with their names."""
    children = {}
    for entry in os.listdir("/proc"):
        try:
            stat = Path(f"/proc/{entry}/stat").read_text()
            if int(stat.rsplit(")", 1)[1].split()[1]) == pid:
                children[int(entry)] = stat.split("(", 1)[1].rsplit(")", 1)[0]
        except (OSError, ValueError, IndexError):
            pass
    files = 0
    for fd in os.listdir(f"/proc/{pid}/fd"):
        try:
            files += not os.readlink(f"/proc/{pid}/fd/{fd}").startswith("socket:")
        except OSError:  # closed meanwhile
            pass
    return files, children


def inode(path):
    """The inode of `path`, or None: the daemon replaces a stale socket as this looks."""
    try:
        return os.stat(path).st_ino
    except OSError:
        return None


def partition_map(client, disk):
    count, *rest = struct.unpack("<I16B16B", client.ask(request(103, disk.encode())))
    return count, rest[:16], rest[16:]


# Other programs' lines around the letters make a rewrite last long enough to be caught at it.
PADDING = "".join(f"# setting {n} of another program\n" for n in range(3000))


def fresh_letter_file():
    CONF.write_text("".join(f"{key}=\n" for key in LETTERS) + PADDING)


def letter_file():
    """The letter file as key -> value; fails unless it is whole: the 26 keys, one a line, and
    every other line as it was."""
    text = CONF.read_text()
    keys, padding = text[:-len(PADDING)].split("\n"), text[-len(PADDING):]
    assert padding == PADDING and keys[-1] == "" and len(keys) == 27, text[:2000]
    pairs = dict(line.split("=", 1) for line in keys[:-1])
    assert list(pairs) == LETTERS
    return pairs


def test_killed_while_rewriting_letters(start, client, tmp_path, report):
    """SIGKILL at random moments of a letter file rewrite: the file is always whole, the old or
    the new one, and each restarted daemon takes the stale socket and pid file over."""
    need_sandbox()
    # A thousand in the main build; the other builds run the same code, so fewer keep the
    # test command short.
    kills = int(os.environ.get("HOTPLUGD_KILLS", 1000 if BUILD.name == "build" else 100))
    settings(tmpdir=TMP)  # the rewrite's temporary file beside the file
    usb = tmp_path / "usb"
    usb.mkdir()
    # The device is absent, but its block directory names the node the daemon makes, as the
    # hardened build wants of an add.
    write(tmp_path / "block" / "dev", f"7:{16 * 25 + 1}\n")
    add = request(1, minor=16 * 25 + 1, major=7, usb=str(usb), block=str(tmp_path / "block"))
    mid_rewrite = torn = 0
    had_loop = os.path.exists(f"/sys/block/loop{16 * 25 + 1}")
    for kill in range(kills):
        if kill % 26 == 0:  # a full file takes no new letter: start again
            fresh_letter_file()
            expected = letter_file()
        serial = f"K{kill:04d}"
        (usb / "serial").write_text(serial + "\n")
        stale = inode(SERVER)
        d = start("-f", rom="null", wait=False)
        assert wait_for(lambda: inode(SERVER) not in (None, stale) or d.proc.poll() is not None,
                        10, 0.001), "not up"
        client.send(add)
        # Killed while it probes, or as its rewrite begins, or within the next few hundred
        # microseconds, or once it is done.
        moment = random.random()
        if moment > 0.3:
            wait_for(lambda: any(n.startswith("conf.tmp.") for n in os.listdir(TMP)), 0.5, 0)
        time.sleep(0 if moment < 0.5 else (moment - 0.5) * 0.0006 if moment < 0.9 else 0.01)
        d.proc.kill()
        d.proc.wait()
        left = [n for n in os.listdir(TMP) if n.startswith("conf.tmp.")]
        mid_rewrite += bool(left)
        for name in left:  # the daemon leaves its temporary file when it is killed
            os.unlink(f"{TMP}/{name}")
        now = letter_file()
        changed = {k for k in now if now[k] != expected[k]}
        torn += not (changed == set() or len(changed) == 1 and now[changed.pop()] == serial)
        expected = now
        assert Path("/var/run/hotplugd.pid").read_text() == f"{d.proc.pid}\n"
        d.closed = True  # killed already; its stale socket stays for the next one
        d.log.close()
        os.close(d.pty)
    assert torn == 0
    # The letters stay: a remembered serial gets its letter back from the next daemon.
    remembered = next(k for k, v in letter_file().items() if v)
    (usb / "serial").write_text(letter_file()[remembered] + "\n")
    stale = inode(SERVER)
    d = start("-f", rom="null", wait=False)
    assert wait_for(lambda: inode(SERVER) not in (None, stale), 10)
    client.send(add)
    reply = wait_for(lambda: client.ask(request(104, b"\x01sdz")), 10)
    assert reply[128:128 + 9] == f"Drive-{remembered[-1]}1\0".encode()
    report(f"letter file: {kills} SIGKILLs, {mid_rewrite} with a rewrite under way, "
           f"{torn} torn files")
    if not had_loop:  # the daemons' probes of /dev/loop401 made the kernel create it
        d.close()
        control = os.open("/dev/loop-control", os.O_RDWR)
        fcntl.ioctl(control, 0x4C81, 16 * 25 + 1)  # LOOP_CTL_REMOVE
        os.close(control)


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


def test_misbehaving_tools_and_programs(disks, start, client, tmp_path, report):
    """disktype that hangs, mlabel that floods its output or closes it and hangs (each given 8
    s), a disk gone before it is probed, and an event program that hangs (15 s): everything
    else goes on, and what stays behind afterwards is only the programs still hanging."""
    need_sandbox()
    write(tmp_path / "bin" / "disktype", DISKTYPE, 0o755)
    write(tmp_path / "bin" / "mlabel", MLABEL, 0o755)
    settings()
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
    # The hardened build refuses the add of the vanished partition 4: it has no device.
    recorded = 4 if HARDENED else 5
    assert wait_for(lambda: partition_map(client, "sdx")[0] == recorded, 5), "all recorded"
    count, present, mounted = partition_map(client, "sdx")
    # Unknown to disktype or gone: tried as each file system (ext2 takes 1 and 5). Told FAT32:
    # mounted as FAT only, which fails on ext2. The vanished partition 4 mounts as nothing.
    assert mounted[1:6] == [1, 0, 0, 0, 1]
    assert [c.split("|")[0] for c in calls() if c.startswith("usbmount")] == [
        f"usbmount add sdx {p} ext2 {SHARE}/Drive-{p}" for p in (1, 5)]
    hook_started = time.monotonic()  # AFTERMNT began with the records' mark
    assert client.ask(request(3, b"sdx"), 25) == bytes(128), "BEFOREMNT waited out, then done"
    assert 14.0 <= time.monotonic() - hook_started < 17.0
    for _ in range(5):  # each pass of the request server reaps one ended child
        client.ask(request(101))
    fds_after, children_after = held(d.proc.pid)
    stuck = {int(pid) for pid in Path("/tmp/stuck").read_text().split()}
    assert fds_after == fds, "no descriptor kept"
    assert set(children_after) - set(children) == stuck, children_after
    report(f"misbehaving tools: probing took {probing:.1f} s for three 8 s limits; "
           f"{fds_after} descriptors (not sockets) before and after; left running by design: "
           f"{len(stuck)} (the hung disktype, mlabel and event program)")
    os.system("kill $(cat /tmp/stuck)")


def test_file_systems_rom_and_scripts_that_fail(disks, start, client, report):
    """With letters on: a letter file rewrite on a full TMPDIR or across file systems, a ROM
    that refuses the archive or the flush; then a missing add script, and a directory in its
    place with a read-only share directory. Each as the rules say, and the daemon goes on."""
    need_sandbox()
    sdy = disks("y", serial="FULL1")
    for partition in (1, 2, 3):
        sdy.plug(partition)
    os.makedirs("/tmp/full", exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4k", "full", "/tmp/full"], check=True)
    # Bigger than the 4 KiB that TMPDIR holds: the rewrite runs out of room.
    before = "DRIVE_LETTERA=\n#" + "x" * 8192 + "\n"
    written = before.replace("=", "=FULL1", 1)
    conf_write = "sys config write(/etc/sysconfig/system.conf)\n"

    def no_script():
        os.unlink("/etc/scripts/usbmount_helper.sh")

    def share_read_only():
        os.unlink("/etc/scripts/usbmount_helper.sh")
        os.mkdir("/etc/scripts/usbmount_helper.sh")
        subprocess.run(["mount", "-o", "remount,ro", SHARE], check=True)

    try:
        # Critical messages and the letter file afterwards, or how the partition is mounted.
        for batch, (partition, args, rom, tmpdir, prepare, outcome) in enumerate([
                (1, ["-f"], "null", "/tmp/full", None, ([conf_write], before)),
                (1, ["-f"], "null", "/tmp/dev", None, (["Rename config file fail master "
                                                       "/etc/sysconfig/system.conf tmp "
                                                       "/tmp/dev/conf.tmp.", conf_write], before)),
                (1, ["-f", "-w"], "full", TMP, None,
                 (["config rom store(config /etc/sysconfig, rom /dev/kteeprom)\n"], written)),
                (1, ["-f", "-w"], "null", TMP, None,
                 (["config flush cache(rom /dev/kteeprom)\n"], written)),
                (2, [], "null", "/tmp/dev", no_script, 1),  # mounted all the same
                (3, [], "null", "/tmp/dev", share_read_only, 0)], 1):  # listed, unmounted, no script
            settings(tmpdir=tmpdir)
            CONF.write_text(before)
            if prepare:
                prepare()
            d = start(*args, rom=rom)
            fds, children = held(d.proc.pid)
            client.send(sdy.event(1, partition))
            if isinstance(outcome, tuple):
                messages, letters = outcome
                assert wait_for(lambda: len([t for p, t in d.texts() if p == CRIT]) == len(messages))
                crit = [text for pri, text in d.texts() if pri == CRIT]
                assert [text[:len(m)] for text, m in zip(crit, messages)] == messages
                assert CONF.read_text() == letters, "the old file stays whole"
            else:
                assert wait_for(lambda: partition_map(client, "sdy")[0] == 1, 10)
                assert partition_map(client, "sdy")[2][partition] == outcome
            # Once the batch is over and its event program ran, nothing is kept.
            assert wait_for(lambda: sum(c.startswith("prog") for c in calls()) == batch, 5)
            time.sleep(0.3)
            if isinstance(outcome, tuple):
                assert partition_map(client, "sdy")[0] == 0, "not taken into service"
            assert held(d.proc.pid) == (fds, children), "no descriptor or child kept"
            d.close()
        assert [c for c in calls() if c.startswith("usbmount")] == []
        report(f"failing file systems, ROM and scripts: {fds} descriptors (not sockets) before "
               f"and after, no child left")
    finally:
        subprocess.run(["umount", "-l", "/tmp/full"])
        subprocess.run(["mount", "-o", "remount,rw", SHARE])
        if os.path.isdir("/etc/scripts/usbmount_helper.sh"):
            os.rmdir("/etc/scripts/usbmount_helper.sh")
