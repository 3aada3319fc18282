"""The request server over its real socket: client commands with good and bad names, queries
of an empty database and malformed datagrams, and the stop request."""
import os
import struct
import time

import pytest

from conftest import SERVER, Client, Daemon, calls, need_sandbox, request, settings

EMPTY_MAP = bytes(36)


@pytest.fixture(scope="module")
def daemon(tmp_path_factory):
    need_sandbox()
    settings()
    d = Daemon(tmp_path_factory.mktemp("daemon")).ready()
    yield d
    d.close()


@pytest.fixture
def c():
    client = Client()
    yield client
    client.close()


def test_client_commands_by_name(daemon, c):
    """A mount request is queued only for "all" or "sd" and a letter (its third character):
    with no disk present each is answered "refused"; other names get no answer at all."""
    for name in (b"all\0", b"sd{\0", b"sda1\0", b"hda\0", b"sdz\0", b"sd\0", b"", b"sda",
                 b"x" * 1020, b"al\0"):
        c.send(request(3, name))
    refused = struct.pack("<i", 1) + bytes(124)
    assert [c.reply(3) for _ in range(4)] == [refused] * 4
    assert c.ask(request(101)) == b"", "no further reply"
    # One batch: the event program before each queued request, and AFTERMNT once at its end.
    time.sleep(2.5)
    events = [line.split("|")[1] for line in calls() if line.startswith("prog")]
    assert events == ["BEFOREMNT"] * 4 + ["AFTERMNT"]


def test_malformed_datagrams(daemon, c):
    # Unknown kinds, and datagrams too short for a kind, get nothing.
    for data in (b"", b"\x07", b"\x07\x00", b"\x07\x00\x00", struct.pack("<i", 0),
                 struct.pack("<i", 5), struct.pack("<i", 100), struct.pack("<i", 105),
                 struct.pack("<i", 998), struct.pack("<i", -1), struct.pack("<i", 4) + bytes(1020)):
        c.send(data)
    assert c.ask(request(101)) == b"", "only the query is answered"
    assert c.ask(request(102, b"sdb")) == c.ask(request(104, b"\x01sdb")) == b""
    # Short ones read as zero-padded; long ones are cut to 1024 bytes.
    assert c.ask(b"\x65") == b""
    assert c.ask(request(103, b"sdb") + b"\xff" * 1017) == EMPTY_MAP
    assert c.ask(request(103, b"sdb") + b"\xff" * 60000) == EMPTY_MAP


def test_stop_request(daemon, c):
    c.send(request(999))
    c.send(request(101))
    assert c.reply(1) is None, "no reply to the stop, and the next datagram is never read"
    assert daemon.wait() == 255
    assert daemon.texts()[-1] == (27, "exit process.(-1)\n")
    assert not os.path.exists(SERVER)
