"""hotplugd's command line and lifecycle: help, options, the ROM and root checks, the pid file,
a second instance, bad settings, detaching, Ctrl-C and the stop client; over its socket, client
commands with good and bad names, malformed datagrams and the stop request."""
import os
import re
import shutil
import signal
import struct
import subprocess
import time
from pathlib import Path

import pytest

from conftest import HARDENED, HOTPLUGD, SERVER, calls, need_sandbox, request, settings, wait_for

HELP = ("Usage:{} {{option}}\n\noption:\n       -h  show this help.\n\n"
        "       -D  run daemon.\n       -w  write rom.\n       -f  fixed drive.\n"
        "       -s  disable force select mount.\n       -k  kill daemon.\n")
PID_FILE = "/var/run/hotplugd.pid"
INFO_USER, ERR_USER, ERR_DAEMON = 14, 11, 27  # before and after openlog(LOG_DAEMON)
EMPTY_MAP = bytes(36)


@pytest.fixture(autouse=True)
def sandboxed():
    need_sandbox()
    settings()


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
    exe = Path("/tmp/bin/hotplugd")
    exe.parent.mkdir(exist_ok=True)
    shutil.copy(HOTPLUGD, exe)
    for rom in (None, "file"):
        d = start("-w", rom=rom, user="65534", exe=exe, wait=False)
        assert d.wait() == 255
        assert (d.err(), d.lines(), d.texts("hotplugd")) == ("ROM device is not found.\n", [], [])
    d = start("-f", rom="null", user="65534", exe=exe, wait=False)
    assert d.wait() == 255
    assert d.lines() == ["no root permission."]
    assert d.err() == f"Error - exit process.({exe}:-1)\n"
    # Without -w this is logged first, under the default identity, the log not yet opened.
    assert d.texts("hotplugd") == [(INFO_USER, "disable write rom conf.\n"),
                                   (ERR_USER, "exit process.(-1)\n")]
    assert not os.path.exists(PID_FILE)


def test_second_instance_and_missing_setting(start):
    first = start("-s")
    # In the C library's words: glibc's, or musl's.
    assert re.search("invalid option -- 's'|unrecognized option: s", first.err()), \
        "-s is refused by getopt, and ignored"
    assert int(Path(PID_FILE).read_text()) == first.proc.pid
    second = start(wait=False)
    began = time.monotonic()
    assert first.stop() == 255
    assert second.wait() == 255
    assert time.monotonic() - began >= 4.0
    assert second.texts()[-1] == (ERR_DAEMON, "exit process.(-3)\n")
    assert second.err().endswith("Error - exit process.(%s:-3)\n" % HOTPLUGD)
    assert first.texts()[-1] == (ERR_DAEMON, "exit process.(-1)\n")
    assert not os.path.exists(SERVER)
    assert Path(PID_FILE).exists(), "the pid file under /var/run stays"

    Path("/var/etc/kelto/nas.conf").write_text("SHAREDIR=/tmp/share\nTMPDIR=/tmp\nDRVNAME=x\n")
    third = start(wait=False)
    assert third.wait() == 255
    assert third.texts()[-1] == (ERR_DAEMON, "exit process.(-3)\n")


def test_detaching_and_stopping(start):
    d = start("-F", "-D", wait=False)
    assert d.proc.wait(5) == 0, "the caller sees status 0 at once"
    assert wait_for(lambda: os.path.exists(SERVER))
    pid = int(Path(PID_FILE).read_text())
    assert os.getsid(pid) != pid, "no session leader"
    assert os.readlink(f"/proc/{pid}/cwd") == "/"
    assert run("-k") == (0, "", "")
    assert wait_for(lambda: not os.path.exists(f"/proc/{pid}"), 8)
    assert d.texts()[-1] == (ERR_DAEMON, "exit process.(-1)\n")
    assert not os.path.exists(SERVER)


def test_ctrl_c(start, tmp_path):
    meminfo = tmp_path / "meminfo"
    meminfo.write_text("Dirty: 0 kB\n")
    d = start(meminfo=meminfo)
    began = time.monotonic()
    d.proc.send_signal(signal.SIGINT)
    assert d.wait() == 0
    assert time.monotonic() - began >= 4.0
    assert b"\nCtrl + 'c'\n\n" in d.output
    # The mount thread unmounts everything within the grace period.
    assert "dirty page cleared" in d.lines()
    assert not os.path.exists(SERVER)


def test_client_commands_by_name(start, client):
    """A mount request is queued only for "all" or "sd" and a letter (its third character):
    with no disk present each is answered "refused"; other names get no answer at all."""
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
    assert client.ask(request(103, b"sdb") + b"\xff" * 1017) == EMPTY_MAP
    assert client.ask(request(103, b"sdb") + b"\xff" * 60000) == EMPTY_MAP


def test_first_disk(start, client):
    """sda is listed and mapped like any other disk: here an add of a node with no driver behind
    it, recorded and never mounted."""
    if HARDENED:
        pytest.skip("the hardened build takes adds of disk majors only (test_hazards)")
    start()
    client.send(request(1, minor=1, major=240))
    assert wait_for(lambda: client.ask(request(101)), 10) == b"sda" + bytes(5)
    assert client.ask(request(103, b"sda")) == struct.pack("<I32B", 1, 0, 1, *[0] * 30)


def test_stop_request(start, client):
    d = start()
    client.send(request(999))
    client.send(request(101))
    assert client.reply(1) is None, "no reply to the stop, and the next datagram is never read"
    assert d.wait() == 255  # and ends as -k's request makes it (test_detaching_and_stopping)
