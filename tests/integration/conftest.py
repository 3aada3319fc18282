"""The black-box tests' harness: the real daemon in the sandbox, loop-backed disks, a client."""
import contextlib
import fcntl
import os
import re
import select
import shutil
import socket
import struct
import subprocess
import threading
import time
import tty
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("HOTPLUGD_BUILD_DIR", ROOT / "build"))
HOTPLUGD = BUILD / "daemon" / "hotplugd"
# The hardened build (docs/SECURITY.md): some tests show a hazard here closed.
HARDENED = "HOTPLUGD_HARDENED:BOOL=ON" in (
    (BUILD / "CMakeCache.txt").read_text() if (BUILD / "CMakeCache.txt").exists() else "")
SERVER = "/tmp/ktipc/ipc-hotplugd.sock"
SHARE = "/tmp/share"
CALLS = "/tmp/calls.log"
SIGNALS = "/tmp/sigblk.log"  # each recorded call's blocked signals
SYSFS = Path("/tmp/sys")  # the disks' attribute trees


@pytest.fixture(autouse=True)
def sandboxed():
    """Every test runs inside the sandbox, with the default settings unless it writes others."""
    if os.environ.get("HOTPLUGD_SANDBOX") != "1":
        pytest.skip("runs inside scripts/sandbox/run (ctest starts it there)")
    if not HOTPLUGD.exists():
        pytest.fail(f"{HOTPLUGD} is not built")
    settings()


def wait_for(predicate, timeout=10.0, step=0.05):
    """The first true value of predicate() within `timeout` seconds, else the last one."""
    end = time.monotonic() + timeout
    while not (value := predicate()) and time.monotonic() < end:
        time.sleep(step)
    return value


def write(path, text, mode=None):
    Path(path).parent.mkdir(parents=True, exist_ok=True)
    Path(path).write_text(text)
    if mode is not None:
        os.chmod(path, mode)


# The appliance's scripts and hook program log each call with its environment, in one ordered
# log, and the signals they started with blocked (builtins: a shell waiting for a child blocks all).
RECORDER = ('#!/bin/sh\necho "{name} $*|$ACTION|$LANG|$LC_COLLATE|$SHAREPATH|$DEVPATH"'
            f' >> {CALLS}\nwhile read -r k v; do [ "$k" != SigBlk: ] || echo "$v" >> {SIGNALS}'
            '; done < /proc/$$/status\n')


def settings(drvname="Drive-%D", dmount=0, tmpdir="/tmp/dev"):
    """nas.conf with the recording hook program, and the fixed scripts recording too."""
    Path(tmpdir).mkdir(parents=True, exist_ok=True)
    write("/tmp/hook", RECORDER.format(name="prog"), 0o755)
    write("/etc/scripts/usbmount_helper.sh", RECORDER.format(name="usbmount"))
    write("/var/etc/kelto/hotplug_kill.sh", RECORDER.format(name="kill"), 0o755)
    write("/var/etc/kelto/nas.conf", f"SHAREDIR={SHARE}\nTMPDIR={tmpdir}\nPROG=/tmp/hook\n"
          f"DRVNAME={drvname}\nMNTGID=100\nDMOUNT={dmount}\nMAXPART=16\n")


def calls():
    return Path(CALLS).read_text().splitlines() if os.path.exists(CALLS) else []


# In the daemon's own mount namespace: a fresh /dev with the log socket and the ROM device asked.
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
mount --bind "$meminfo" /proc/meminfo
umount -l "$old"
exec "$@"
"""

# musl ends every syslog message with a line feed, and names no sender before openlog.
MUSL = "musl" in BUILD.name


class LogText(str):
    """A logged text; with musl it equals a text that differs only by a final line feed."""

    def __eq__(self, other):
        return str.__eq__(*(str(t).rstrip("\n") if MUSL else t for t in (self, other)))

    __hash__ = str.__hash__


MESSAGE = re.compile(rb"<(\d+)>(?:\w{3} [ \d]\d \d\d:\d\d:\d\d )?([^:\[]*)(?:\[\d+\])?: (.*)", re.S)


class Daemon:
    """hotplugd in a namespace of its own, its syslog, output and status caught. `rom`: None,
    "null", "full" or "file"; `user` runs it through setpriv; `path` goes before its PATH; the
    file `meminfo` is its /proc/meminfo (no dirty pages unless a test writes them)."""

    def __init__(self, work, *args, rom=None, user=None, exe=None, path=None):
        self.work = Path(work)
        self.meminfo = self.work / "meminfo"
        (self.work / "olddev").mkdir(parents=True, exist_ok=True)
        self.log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        log_path = self.work / "log.sock"
        self.log.bind(str(log_path))
        os.chmod(log_path, 0o666)
        self.messages, self.output, self.closed, self.lock = [], b"", False, threading.Lock()
        self.pty, slave = os.openpty()
        tty.setraw(slave)
        os.set_blocking(self.pty, False)
        self.meminfo.write_text("Dirty: 0 kB\n")
        threading.Thread(target=self._collect, daemon=True).start()
        # The sandbox's share directory (private to it) propagates to and from the daemon's.
        subprocess.run(["mount", "--make-shared", SHARE], check=True)
        command = [str(exe or HOTPLUGD), *args]
        if user:
            command = ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups",
                       *command]
        self.stderr = open(self.work / "stderr", "w+b")
        self.proc = subprocess.Popen(
            ["unshare", "--mount", "--propagation", "unchanged", "sh", "-c", LAUNCH, "launch",
             str(self.work / "olddev"), str(log_path), rom or "", str(self.meminfo), *command],
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
        with self.lock:
            with contextlib.suppress(OSError):
                while match := MESSAGE.match(self.log.recv(65536, socket.MSG_DONTWAIT)):
                    who = match[2].decode() or ("hotplugd" if MUSL else "")
                    self.messages.append((int(match[1]), who, LogText(match[3].decode())))
            with contextlib.suppress(OSError):
                while chunk := os.read(self.pty, 4096):
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
        """Kills it if need be; the socket of one killed before stays for the next one."""
        if self.closed:
            return
        self.closed = True
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()
            Path(SERVER).unlink(missing_ok=True)  # the next daemon is not up yet
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
    with contextlib.suppress(OSError, ValueError):  # one that detached
        pid = int(Path("/var/run/hotplugd.pid").read_text())
        if Path(f"/proc/{pid}/comm").read_text() == "hotplugd\n":
            os.kill(pid, 9)
    for path in [SERVER, CALLS, SIGNALS, "/var/run/hotplugd.pid"]:
        Path(path).unlink(missing_ok=True)


class Client:
    """A bound client channel: requests go to the daemon, replies come back here."""

    def __init__(self):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(f"/tmp/ktipc/client-{os.getpid()}.sock")

    def send(self, data):
        self.sock.sendto(data, SERVER)

    def ask(self, data, timeout=5.0):
        """Sends `data`; the reply, or None when none came in time."""
        self.send(data)
        return self.reply(timeout)

    def reply(self, timeout=5.0):
        self.sock.settimeout(timeout)
        with contextlib.suppress(socket.timeout):
            return self.sock.recv(65536)


@pytest.fixture
def client():
    c = Client()
    yield c
    os.unlink(c.sock.getsockname())
    c.sock.close()


def request(kind, name=b"", minor=0, major=0, usb="", scsi="", block="", extra=(0, 0, 0)):
    """A request datagram: a client's (kind and name) or a hotplug event's full 416 bytes."""
    if kind not in (1, 2):
        return struct.pack("<i", kind) + name
    return struct.pack("<iHH4x128s128s128sIII8x", kind, major, minor, usb.encode(),
                       scsi.encode(), block.encode(), *extra)


def partition_map(client, disk):
    """(count, present flags, mounted flags) of `disk`'s partitions 0 to 15, as clients see them."""
    reply = client.ask(request(103, disk.encode()))
    return reply and (reply[0], list(reply[4:20]), list(reply[20:36]))


class LoopDisk:
    """Images attached as partitions p of "sd" + letter at /dev/loop(16 * index + p), named so
    by the request's minor, and a sysfs tree of the disk as a USB stick's under SYSFS."""

    def __init__(self, work, letter, serial="", vendor="Acme", model="Stick"):
        self.index = ord(letter) - ord("a")
        self.name = "sd" + letter
        self.work = Path(work)
        self.work.mkdir(parents=True, exist_ok=True)
        self.loops = []
        # Probing a node of an absent loop device creates it: every one that appears goes again.
        self.absent = {n for n in range(16 * self.index, 16 * self.index + 16)
                       if not os.path.exists(f"/sys/block/loop{n}")}
        # Paths short enough for a request's 128-byte fields.
        self.devpath = f"/devices/usb{letter}/1-1/host0/{self.name}"
        self.usb = SYSFS / f"devices/usb{letter}/1-1"
        self.scsi = self.usb / "host0"
        for attribute, value in {"serial": serial, "idVendor": "0781", "idProduct": "5567",
                                 "manufacturer": "SanDisk", "product": "Cruzer", "speed": "480",
                                 "host0/vendor": vendor, "host0/model": model,
                                 f"host0/{self.name}/removable": "1",
                                 f"host0/{self.name}/size": "262144",
                                 f"host0/{self.name}/dev": f"7:{self.minor(0)}"}.items():
            write(self.usb / attribute, value + "\n")
        (SYSFS / "block").mkdir(exist_ok=True)
        os.symlink(f"..{self.devpath}", SYSFS / "block" / self.name)

    def minor(self, partition):
        return 16 * self.index + partition

    def block(self, partition):  # 0: the disk
        return self.scsi / self.name / (f"{self.name}{partition}" if partition else "")

    def plug(self, partition, make="mke2fs -q -F -I 128 -t ext2 IMG", size="8M", ro=False):
        """Makes an image with `make` (IMG for its path) and attaches it as `partition`."""
        image = self.work / f"{self.name}{partition}.img"
        subprocess.run(f"truncate -s {size} {image} && " + make.replace("IMG", str(image)),
                       shell=True, check=True, capture_output=True)
        number = self.minor(partition)
        write(self.block(partition) / "dev", f"7:{number}\n")
        write(self.block(partition) / "size", f"{os.path.getsize(image) // 512}\n")
        # One detached while held is released on its last close, which may come a moment later.
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
        return request(kind, minor=self.minor(partition), major=major, usb=str(self.usb),
                       scsi=str(self.scsi), block=str(self.block(partition)), extra=(1, 2, 3))

    def close(self):
        for number in self.loops:
            subprocess.run(["losetup", "-d", f"/dev/loop{number}"], capture_output=True)
        control = os.open("/dev/loop-control", os.O_RDWR)
        for number in self.absent:  # LOOP_CTL_REMOVE: the host keeps the loop devices it had
            with contextlib.suppress(OSError):
                fcntl.ioctl(control, 0x4C81, number)
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
    shutil.rmtree(SYSFS, ignore_errors=True)
