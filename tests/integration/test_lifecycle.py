"""hotplugd's command line and lifecycle (options, ROM and root checks, pid file, a second
instance, detaching, Ctrl-C, stopping), and its answers to client commands and bad datagrams."""
import os
import re
import shutil
import signal
import struct
import subprocess
import time
from pathlib import Path

from conftest import HARDENED, HOTPLUGD, SERVER, calls, request, wait_for, write

HELP = ("Usage:{} {{option}}\n\noption:\n       -h  show this help.\n\n"
        "       -D  run daemon.\n       -w  write rom.\n       -f  fixed drive.\n"
        "       -s  disable force select mount.\n       -k  kill daemon.\n")
PID_FILE = "/var/run/hotplugd.pid"
INFO_USER, ERR_USER, ERR_DAEMON = 14, 11, 27  # before and after openlog(LOG_DAEMON)


def run(*args):
    r = subprocess.run([str(HOTPLUGD), *args], capture_output=True, text=True, timeout=10)
    return r.returncode, r.stdout, r.stderr


def test_help_and_the_stop_client_alone():
    for args in (["-h"], ["-h", "-k"], ["-F", "-x", "-h"]):
        assert run(*args)[0:2] == (0, HELP.format(HOTPLUGD)), args
    # -k ends the parsing: no help. With no daemon the send fails, which counts as success.
    assert run("-k", "-h") == (0, "", "")


def test_rom_check_comes_before_the_root_check(start, tmp_path):
    # Run as nobody from a copy it may execute: the ROM check fails it first.
    exe = Path(shutil.copy(HOTPLUGD, "/tmp/hotplugd"))
    for rom in (None, "file"):
        d = start("-w", rom=rom, user="65534", exe=exe, wait=False)
        assert (d.wait(), d.err(), d.lines(), d.texts("hotplugd")) == (
            255, "ROM device is not found.\n", [], [])
    d = start("-f", rom="null", user="65534", exe=exe, wait=False)
    assert (d.wait(), d.lines(), d.err()) == (255, ["no root permission."],
                                              f"Error - exit process.({exe}:-1)\n")
    # Without -w this is logged first, under the default identity, the log not yet opened.
    assert d.texts("hotplugd") == [(INFO_USER, "disable write rom conf.\n"),
                                   (ERR_USER, "exit process.(-1)\n")]
    assert not os.path.exists(PID_FILE)


def test_second_instance_and_missing_setting(start):
    write(PID_FILE, "1234567890123\nleft by a daemon that died\n")
    first = start("-s")
    # In the C library's words: glibc's, or musl's.
    assert re.search("invalid option -- 's'|unrecognized option: s", first.err()), \
        "-s is refused by getopt, and ignored"
    second = start(wait=False)
    began = time.monotonic()
    assert first.stop() == 255
    assert second.wait() == 255
    assert time.monotonic() - began >= 4.0
    assert second.texts()[-1] == (ERR_DAEMON, "exit process.(-3)\n")
    assert second.err().endswith("Error - exit process.(%s:-3)\n" % HOTPLUGD)
    assert first.texts()[-1] == (ERR_DAEMON, "exit process.(-1)\n")
    # The stale file was rewritten; the second instance failed to lock it before truncating.
    assert Path(PID_FILE).read_text() == f"{first.proc.pid}\n", "and it stays"

    Path("/var/etc/kelto/nas.conf").write_text("SHAREDIR=/tmp/share\nTMPDIR=/tmp\nDRVNAME=x\n")
    third = start(wait=False)
    assert (third.wait(), third.texts()[-1]) == (255, (ERR_DAEMON, "exit process.(-3)\n"))


def test_detaching_and_stopping(start):
    d = start("-F", "-D", wait=False)
    assert d.proc.wait(5) == 0, "the caller sees status 0 at once"
    assert wait_for(lambda: os.path.exists(SERVER))
    pid = int(Path(PID_FILE).read_text())
    assert os.getsid(pid) != pid, "no session leader"
    assert os.readlink(f"/proc/{pid}/cwd") == "/"
    status = Path(f"/proc/{pid}/status").read_text()
    assert "\nUmask:\t0000\n" in status and int(re.search(r"SigIgn:\t(\w+)", status)[1], 16) & 1
    assert str(d.work / "stderr") not in [os.readlink(f) for f in Path(f"/proc/{pid}/fd").iterdir()]
    # Decimal 644 (octal 1204), less the umask of 0 that detaching left.
    assert os.stat(PID_FILE).st_mode & 0o7777 == 0o1204
    assert run("-k") == (0, "", "")
    assert wait_for(lambda: not os.path.exists(f"/proc/{pid}"), 8)
    assert d.texts()[-1] == (ERR_DAEMON, "exit process.(-1)\n")
    assert not os.path.exists(SERVER)


def test_ctrl_c(start):
    d = start()
    began = time.monotonic()
    d.proc.send_signal(signal.SIGINT)
    assert d.wait() == 0 and time.monotonic() - began >= 4.0
    assert b"\nCtrl + 'c'\n\n" in d.output
    # The mount thread unmounts everything within the grace period.
    assert "dirty page cleared" in d.lines()


def test_client_commands_by_name(start, client):
    """Only "all" or "sd" and a letter (the third character) are queued and answered."""
    start()
    for name in (b"all\0", b"sd{\0", b"sda1\0", b"hda\0", b"sdz\0", b"sd\0", b"", b"sda",
                 b"x" * 1020, b"al\0"):
        client.send(request(3, name))
    refused = struct.pack("<i", 1) + bytes(124)
    assert [client.reply(3) for _ in range(4)] == [refused] * 4
    assert client.ask(request(101)) == b"", "no further reply"
    # One batch: the event program before each queued request, and AFTERMNT once at its end.
    time.sleep(2.5)
    events = [line.split("|")[1] for line in calls() if line.startswith("prog")]
    assert events == ["BEFOREMNT"] * 4 + ["AFTERMNT"]


def test_malformed_datagrams(start, client):
    start()
    # Unknown kinds, and datagrams too short for a kind, get nothing.
    for data in (b"", b"\x07", b"\x07\x00", b"\x07\x00\x00", struct.pack("<i", 0),
                 struct.pack("<i", 5), struct.pack("<i", 100), struct.pack("<i", 105),
                 struct.pack("<i", 998), struct.pack("<i", -1), struct.pack("<i", 4) + bytes(1020)):
        client.send(data)
    assert client.ask(request(101)) == b"", "only the query is answered"
    assert client.ask(request(102, b"sdb")) == client.ask(request(104, b"\x01sdb")) == b""
    # Short ones read as zero-padded; long ones are cut to 1024 bytes.
    assert client.ask(b"\x65") == b""
    for tail in (1017, 60000):
        assert client.ask(request(103, b"sdb") + b"\xff" * tail) == bytes(36)
    if not HARDENED:  # which takes adds of disk majors only (test_hazards)
        # sda is listed and mapped like any other disk: here a node with no driver behind it.
        client.send(request(1, minor=1, major=240))
        assert wait_for(lambda: client.ask(request(101)), 10) == b"sda" + bytes(5)
        assert client.ask(request(103, b"sda")) == struct.pack("<I32B", 1, 0, 1, *[0] * 30)


def test_killed_daemon_is_replaced_and_the_stop_request(start, client):
    """A daemon killed outright leaves its socket and pid file: the next one takes both over."""
    first = start()
    first.proc.kill()
    first.proc.wait()
    # The socket's inode as its directory lists it: no stat to race with its replacement.
    inode = lambda: next((e.inode() for e in os.scandir("/tmp/ktipc") if e.path == SERVER), 0)  # noqa
    stale, second = inode(), start(wait=False)
    assert wait_for(lambda: inode() not in (0, stale))
    assert client.ask(request(101)) == b"" and Path(PID_FILE).read_text() == f"{second.proc.pid}\n"
    client.send(request(999))
    client.send(request(101))
    assert client.reply(1) is None, "no reply to the stop, and the next datagram is never read"
    assert second.wait() == 255  # and ends as -k's request makes it (test_detaching_and_stopping)
