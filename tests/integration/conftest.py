"""Shared set-up of the black-box tests: the sandbox, and a harness that runs the real daemon.

Tests of the daemon run inside scripts/sandbox/run (CTest starts them there: see
tests/CMakeLists.txt). Each daemon gets a mount namespace of its own below the sandbox's, with a
fresh /dev that holds the recording syslog socket at /dev/log; /tmp/share is shared with it, so
its mounts show here too.
"""
import contextlib
import fcntl
import os
import re
import select
import socket
import struct
import subprocess
import threading
import time
import tty
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
SANDBOX = ROOT / "scripts" / "sandbox" / "run"
BUILD = Path(os.environ.get("HOTPLUGD_BUILD_DIR", ROOT / "build"))
HOTPLUGD = BUILD / "daemon" / "hotplugd"
# The hardened build (docs/SECURITY.md): some tests show a hazard here closed.
HARDENED = "HOTPLUGD_HARDENED:BOOL=ON" in (
    (BUILD / "CMakeCache.txt").read_text() if (BUILD / "CMakeCache.txt").exists() else "")
IN_SANDBOX = os.environ.get("HOTPLUGD_SANDBOX") == "1"
SERVER = "/tmp/ktipc/ipc-hotplugd.sock"
SHARE = "/tmp/share"
CALLS = "/tmp/calls.log"
SIGNALS = "/tmp/sigblk.log"  # each recorded call's blocked signals


def pytest_configure(config):
    # Outside, the sandbox covers /tmp with a fresh tmpfs: files shared with sandboxed commands
    # live beside the build. Inside, /tmp is the sandbox's own.
    if not config.option.basetemp and not IN_SANDBOX:
        (ROOT / "build").mkdir(exist_ok=True)
        config.option.basetemp = str(ROOT / "build" / "pytest-tmp")


def need_sandbox():
    if not IN_SANDBOX:
        pytest.skip("runs inside scripts/sandbox/run (ctest starts it there)")
    if not HOTPLUGD.exists():
        pytest.fail(f"{HOTPLUGD} is not built")


@pytest.fixture
def report(capsys):
    """report(text): a figure the test measured, shown in the test log as "[ figures ] text"."""
    def show(text):
        with capsys.disabled():
            print(f"\n[ figures ] {text}", flush=True)
    return show


def wait_for(predicate, timeout=10.0, step=0.05):
    """The first true value of predicate() within `timeout` seconds, else the last one."""
    end = time.monotonic() + timeout
    while True:
        value = predicate()
        if value or time.monotonic() > end:
            return value
        time.sleep(step)


def write(path, text, mode=None):
    Path(path).parent.mkdir(parents=True, exist_ok=True)
    Path(path).write_text(text)
    if mode is not None:
        os.chmod(path, mode)


# The appliance's scripts and hook program record each call, its arguments and the
# environment it got, in one ordered log; and the signals they were started with blocked, read
# by builtins (a shell waiting for a child of its own blocks them all meanwhile).
RECORDER = ('#!/bin/sh\necho "{name} $*|$ACTION|$LANG|$LC_COLLATE|$SHAREPATH|$DEVPATH"'
            f' >> {CALLS}\nwhile read -r k v; do [ "$k" != SigBlk: ] || echo "$v" >> {SIGNALS}'
            '; done < /proc/$$/status\n')


def settings(drvname="Drive-%D", dmount=0, tmpdir="/tmp/dev", extra=""):
    """nas.conf with the recording hook program, and the fixed scripts recording too."""
    Path(tmpdir).mkdir(parents=True, exist_ok=True)
    write("/tmp/hook", RECORDER.format(name="prog"), 0o755)
    write("/etc/scripts/usbmount_helper.sh", RECORDER.format(name="usbmount"))
    write("/var/etc/kelto/hotplug_kill.sh", RECORDER.format(name="kill"), 0o755)
    write("/var/etc/kelto/nas.conf", f"SHAREDIR={SHARE}\nTMPDIR={tmpdir}\nPROG=/tmp/hook\n"
          f"DRVNAME={drvname}\nMNTGID=100\nDMOUNT={dmount}\nMAXPART=16\n{extra}")


@contextlib.contextmanager
def unwritten(meminfo, node):
    """While inside, the daemon's guard sees data not yet written: dirty pages in the system for
    the appliance's guard; for the hardened one, which looks at the disk itself, its device node
    (`node`) is away, so that it cannot tell."""
    meminfo.write_text("Dirty: 4 kB\n")
    if HARDENED:
        os.rename(node, f"{node}.away")
    try:
        yield
    finally:
        meminfo.write_text("Dirty: 0 kB\n")
        if HARDENED:
            os.rename(f"{node}.away", node)


def calls():
    """The recorded calls so far, one per line."""
    return Path(CALLS).read_text().splitlines() if os.path.exists(CALLS) else []


# Run in the daemon's own mount namespace: a fresh /dev with what programs need, the log
# socket at /dev/log, the ROM device as asked, /proc/meminfo from a file, then the command.
LAUNCH = r"""
set -e
old=$1 log=$2 rom=$3 meminfo=$4; shift 4
mount --rbind /dev "$old"
mount -t tmpfs -o mode=0755 hotplugd-dev /dev
for n in null zero full random urandom tty; do touch /dev/$n; mount --bind "$old/$n" /dev/$n; done
touch /dev/log; mount --bind "$log" /dev/log
case $rom in
    null) mknod /dev/kteeprom c 1 3 ;;  # takes the archive, refuses driver requests
    full) mknod /dev/kteeprom c 1 7 ;;  # refuses the archive
    file) touch /dev/kteeprom ;;
esac
[ -z "$meminfo" ] || mount --bind "$meminfo" /proc/meminfo
umount -l "$old"
exec "$@"
"""

# The C library frames each syslog line. musl ends every message with a line feed (so its
# lines read the same whether the daemon wrote one or not), and before openlog it names no
# sender at all where glibc names the program.
MUSL = "musl" in BUILD.name


class LogText(str):
    """A logged text; with musl it equals a text that differs only by a final line feed."""

    def __eq__(self, other):
        if MUSL and isinstance(other, str):
            return self.rstrip("\n") == other.rstrip("\n")
        return str.__eq__(self, other)

    def __ne__(self, other):
        return not self == other

    __hash__ = str.__hash__


MESSAGE = re.compile(rb"<(\d+)>(?:\w{3} [ \d]\d \d\d:\d\d:\d\d )?([^:\[]*)(?:\[\d+\])?: (.*)", re.S)


class Daemon:
    """hotplugd started in a namespace of its own, with its syslog, output and status caught.

    `rom` is None (no /dev/kteeprom), "null", "full" (character devices) or "file"; `user`
    runs it through setpriv as that user; `meminfo` is the file it reads as /proc/meminfo;
    `path` goes before its PATH."""

    def __init__(self, work, *args, rom=None, user=None, meminfo=None, exe=None, path=None):
        self.work = Path(work)
        self.work.mkdir(parents=True, exist_ok=True)
        self.log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        log_path = self.work / "log.sock"
        self.log.bind(str(log_path))
        os.chmod(log_path, 0o666)
        self.messages = []
        self.output = b""
        master, slave = os.openpty()
        tty.setraw(slave)
        os.set_blocking(master, False)
        self.pty = master
        self.lock = threading.Lock()
        self.closed = False
        threading.Thread(target=self._collect, daemon=True).start()
        (self.work / "olddev").mkdir(exist_ok=True)
        # The sandbox's share directory (private to the sandbox) propagates to and from the
        # daemon's namespace.
        subprocess.run(["mount", "--make-shared", SHARE], check=True)
        command = [str(exe or HOTPLUGD), *args]
        if user:
            command = ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups",
                       *command]
        self.stderr = open(self.work / "stderr", "w+b")
        self.proc = subprocess.Popen(
            ["unshare", "--mount", "--propagation", "unchanged", "sh", "-c", LAUNCH, "launch",
             str(self.work / "olddev"), str(log_path), rom or "", str(meminfo or ""), *command],
            stdout=slave, stderr=self.stderr, stdin=subprocess.DEVNULL,
            env=dict(os.environ, PATH=f"{path}:{os.environ['PATH']}") if path else None)
        os.close(slave)

    def _collect(self):
        # The daemon blocks once ten log messages wait unread, or a pty's worth of output.
        try:
            while not self.closed:
                select.select([self.log, self.pty], [], [], 0.2)
                self._drain()
        except (OSError, ValueError):  # closed meanwhile
            pass

    def _drain(self):
        """Takes in every message and all output sent so far."""
        with self.lock:
            while True:
                try:
                    match = MESSAGE.match(self.log.recv(65536, socket.MSG_DONTWAIT))
                except OSError:
                    break
                if match:
                    who = match[2].decode() or ("hotplugd" if MUSL else "")
                    self.messages.append((int(match[1]), who, LogText(match[3].decode())))
            while True:
                try:
                    chunk = os.read(self.pty, 4096)
                except OSError:
                    break
                if not chunk:
                    break
                self.output += chunk

    def texts(self, ident="hotplug"):
        """(priority, text) of each message of `ident` so far."""
        self._drain()
        return [(pri, text) for pri, who, text in self.messages if who == ident]

    def lines(self):
        self._drain()
        return self.output.decode(errors="replace").splitlines()

    def err(self):
        self.stderr.seek(0)
        return self.stderr.read().decode(errors="replace")

    def ready(self, timeout=10):
        assert wait_for(lambda: os.path.exists(SERVER) or self.proc.poll() is not None,
                        timeout), "the daemon did not come up"
        assert self.proc.poll() is None, self.err()
        return self

    def wait(self, timeout=15):
        status = self.proc.wait(timeout)
        assert "Sanitizer" not in self.err(), self.err()
        return status

    def stop(self):
        """Stops it with `hotplugd -k` and waits out the grace period; the status."""
        if self.proc.poll() is None:
            subprocess.run([str(HOTPLUGD), "-k"], check=True, timeout=10)
        return self.wait()

    def close(self):
        if self.closed:
            return
        self.closed = True
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()
            if os.path.exists(SERVER):  # left by the killed daemon: the next one is not up yet
                os.unlink(SERVER)
        subprocess.run(f"umount -q -l {SHARE}/* 2>/dev/null", shell=True)
        self.log.close()
        os.close(self.pty)


@pytest.fixture
def start(tmp_path):
    """start(*args, **options): a running Daemon (see Daemon), stopped and cleaned up after."""
    started = []

    def starter(*args, wait=True, **options):
        daemon = Daemon(tmp_path / f"daemon{len(started)}", *args, **options)
        started.append(daemon)
        return daemon.ready() if wait else daemon

    yield starter
    for daemon in started:
        daemon.close()
    try:  # one that detached
        pid = int(Path("/var/run/hotplugd.pid").read_text())
        if Path(f"/proc/{pid}/comm").read_text() == "hotplugd\n":
            os.kill(pid, 9)
    except (OSError, ValueError):
        pass
    for path in [SERVER, CALLS, SIGNALS, "/var/run/hotplugd.pid"]:
        if os.path.exists(path):
            os.unlink(path)


class Client:
    """A bound client channel: requests go to the daemon, replies come back here."""

    count = 0

    def __init__(self):
        Client.count += 1
        self.path = f"/tmp/ktipc/client-{os.getpid()}-{Client.count}.sock"
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(self.path)

    def send(self, data):
        self.sock.sendto(data, SERVER)

    def ask(self, data, timeout=5.0):
        """Sends `data`; the reply, or None when none came in time."""
        self.send(data)
        return self.reply(timeout)

    def reply(self, timeout=5.0):
        self.sock.settimeout(timeout)
        try:
            return self.sock.recv(65536)
        except socket.timeout:
            return None

    def close(self):
        self.sock.close()
        os.unlink(self.path)


@pytest.fixture
def client():
    c = Client()
    yield c
    c.close()


def request(kind, name=b"", minor=0, major=0, usb="", scsi="", block="", extra=(0, 0, 0)):
    """A request datagram: a client's (kind and name) or a hotplug event's full 416 bytes."""
    if kind not in (1, 2):
        return struct.pack("<i", kind) + name
    return struct.pack("<iHH4x128s128s128sIII8x", kind, major, minor, usb.encode(),
                       scsi.encode(), block.encode(), *extra)


class LoopDisk:
    """Images attached as partitions of the disk "sd" + letter: partition p is
    /dev/loop(16 * index + p), so the daemon names it after the request's minor. USB and SCSI
    attribute directories describe the disk."""

    def __init__(self, work, letter, serial="", vendor="Acme", model="Stick"):
        self.index = ord(letter) - ord("a")
        self.name = "sd" + letter
        self.work = Path(work)
        self.loops = []
        # Opening a node of an absent loop device makes the kernel create it (the daemon does,
        # probing the whole disk): every device of this disk's range that appears goes again.
        self.present = {n for n in range(16 * self.index, 16 * self.index + 16)
                        if os.path.exists(f"/sys/block/loop{n}")}
        self.usb = self.work / f"usb-{letter}"
        self.scsi = self.work / f"scsi-{letter}"
        for directory, attributes in [
                (self.usb, {"serial": serial, "idVendor": "0781", "idProduct": "5567",
                            "manufacturer": "SanDisk", "product": "Cruzer", "speed": "480"}),
                (self.scsi, {"vendor": vendor, "model": model})]:
            directory.mkdir(parents=True)
            for attribute, value in attributes.items():
                (directory / attribute).write_text(value + "\n")

    def minor(self, partition):
        return 16 * self.index + partition

    def plug(self, partition, make="mke2fs -q -F -I 128 -t ext2 IMG", size="8M", ro=False):
        """Makes an image with `make` (IMG for its path) and attaches it as `partition`."""
        image = self.work / f"{self.name}{partition}.img"
        subprocess.run(f"truncate -s {size} {image} && " + make.replace("IMG", str(image)),
                       shell=True, check=True, capture_output=True)
        number = self.minor(partition)
        # A device detached while something still held it is released only on the last close,
        # which may come a moment later: wait for that rather than fail.
        for _ in range(50):
            attach = subprocess.run(["losetup", *(["-r"] if ro else []), f"/dev/loop{number}",
                                     str(image)], capture_output=True, text=True)
            if attach.returncode == 0:
                break
            time.sleep(0.1)
        assert attach.returncode == 0, attach.stderr + subprocess.run(
            ["losetup", "-l"], capture_output=True, text=True).stdout
        self.loops.append(number)

    def event(self, kind, partition, major=7):
        number = self.minor(partition)
        return request(kind, minor=number, major=major, usb=str(self.usb), scsi=str(self.scsi),
                       block=f"/sys/block/loop{number}", extra=(1, 2, 3))

    def close(self):
        for number in self.loops:
            subprocess.run(["losetup", "-d", f"/dev/loop{number}"], capture_output=True)
        control = os.open("/dev/loop-control", os.O_RDWR)
        for number in range(16 * self.index, 16 * self.index + 16):
            if number not in self.present and os.path.exists(f"/sys/block/loop{number}"):
                try:  # LOOP_CTL_REMOVE: the host keeps only the loop devices it had
                    fcntl.ioctl(control, 0x4C81, number)
                except OSError:
                    pass
        os.close(control)


@pytest.fixture
def disks(tmp_path):
    """disks(letter, **attributes): a LoopDisk, detached after the test."""
    made = []

    def maker(letter, **attributes):
        made.append(LoopDisk(tmp_path / "disks", letter, **attributes))
        return made[-1]

    yield maker
    subprocess.run(f"umount -q -l {SHARE}/* 2>/dev/null", shell=True)
    for disk in made:
        disk.close()
