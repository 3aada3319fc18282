#!/usr/bin/env python3
"""Test machines: Debian's own kernel of x86_64 or of MIPS Malta (mipsel) under QEMU, booted from
a small initramfs (BusyBox, disktype, mtools, ntfslabel and their C library), with a directory
of the host shared at /host over 9p, USB sticks plugged and pulled over QMP, and a shell on the
first serial port. The kernel's own messages go to kernel.log in the machine's directory.

usage: scripts/vm/machine.py ARCH [--share DIR] [--work DIR]
  Boots a machine and hands its console to this terminal (Ctrl-A X ends it). Meanwhile, from
  another terminal, with the QMP socket it names:
    scripts/vm/machine.py plug QMP ID IMAGE [--serial S] [--read-only]
    scripts/vm/machine.py pull QMP ID
"""
import argparse
import json
import os
import re
import select
import shutil
import socket
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
FETCH = ROOT / "scripts" / "vm" / "fetch.sh"
# USB host controller and stick, disks, the file systems the daemon mounts, the 9p share.
MODULES = ["xhci_pci", "usb_storage", "sd_mod", "vfat", "nls_cp437", "nls_utf8", "ext4",
           "9pnet_virtio", "9p", "virtio_pci"]
ARCHES = {
    "x86_64": {"qemu": ["qemu-system-x86_64", "-m", "512M"], "triplet": "x86_64-linux-gnu"},
    # One CPU (more stall under emulation) and no more memory than it maps without HIGHMEM.
    "mipsel": {"qemu": ["qemu-system-mipsel", "-M", "malta", "-cpu", "24Kf", "-m", "256M"],
               "triplet": "mipsel-linux-gnu"},
}
INIT = r"""#!/bin/busybox sh
/bin/busybox mkdir -p /bin /sbin /usr/bin /usr/sbin /proc /sys /dev /tmp /host /mnt /var/run
/bin/busybox --install -s
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mount -t tmpfs tmpfs /tmp
for m in $(cat /modules); do insmod /lib/modules/$m 2>/dev/null; done
# usb-storage waits a second before it looks at a new stick; tests need not.
echo 0 > /sys/module/usb_storage/parameters/delay_use
# 9p2000.L carries Linux's errno numbers, which MIPS numbers differently: .u does not.
mount -t 9p -o trans=virtio,version=9p2000.u host /host
export PATH=/host/bin:/bin:/sbin:/usr/bin:/usr/sbin PS1='guest# '
# A program drives the shell: no echo, no prompt.
# The shell's terminal is opened once and stays open: a serial port closed meanwhile hangs up,
# and a shell that opened it during that close would read an end of file.
exec </dev/ttyS0 >/dev/ttyS0 2>&1
grep -q vm.interactive /proc/cmdline || { stty -echo; PS1=; }
echo "vm: shell ready"
# Not exec'd: the shell as process 1 would also inherit the daemon once it detaches, and an
# interactive ash does not take well to reaping children it never started.
setsid sh
echo "vm: the shell ended ($?)"
poweroff -f
"""


def initramfs(arch, work):
    """Fetches the packages (once) and packs the initramfs into `work`; its path and the
    kernel's."""
    cache = ROOT / "build-vm" / arch
    subprocess.run(["bash", str(FETCH), arch, str(cache)], check=True)
    root, triplet = cache / "root", ARCHES[arch]["triplet"]
    version = next((root / "lib" / "modules").iterdir()).name
    stage = Path(work) / "initramfs"
    shutil.rmtree(stage, ignore_errors=True)
    (stage / "lib" / "modules").mkdir(parents=True)
    order = []
    for module in MODULES:
        shown = subprocess.run(["/sbin/modprobe", "-d", str(root), "-S", version,
                                "--show-depends", module], capture_output=True, text=True,
                               check=True).stdout
        for path in re.findall(r"^insmod (\S+)", shown, re.M):
            if Path(path).name not in order:
                order.append(Path(path).name)
                shutil.copy(path, stage / "lib" / "modules")
    (stage / "modules").write_text("\n".join(order) + "\n")
    # The C library, its loader and gconv modules; the tools; BusyBox.
    for part in [f"lib/{triplet}", f"usr/lib/{triplet}", "lib64", "lib/ld.so.1", "bin/busybox",
                 "usr/bin/disktype", "usr/bin/mtools", "usr/bin/mlabel", "sbin/ntfslabel"]:
        source, target = root / part, stage / part
        target.parent.mkdir(parents=True, exist_ok=True)
        if source.is_dir():
            shutil.copytree(source, target, symlinks=True, dirs_exist_ok=True)
        elif source.exists() or source.is_symlink():
            shutil.copy(source, target, follow_symlinks=False)
    (stage / "init").write_text(INIT)
    os.chmod(stage / "init", 0o755)
    packed = Path(work) / "initramfs.gz"
    subprocess.run(f"cd {stage} && find . | cpio -o -H newc --quiet | gzip -1 > {packed}",
                   shell=True, check=True)
    shutil.rmtree(stage)
    return packed, next((root / "boot").glob("vmlinuz-*"))


class QMP:
    """QEMU's machine protocol: commands, and the events that come between their replies."""

    def __init__(self, path, timeout=30):
        self.sock = socket.socket(socket.AF_UNIX)
        end = time.monotonic() + timeout
        while True:
            try:
                self.sock.connect(str(path))
                break
            except OSError:
                if time.monotonic() > end:
                    raise
                time.sleep(0.1)
        self.file = self.sock.makefile("r")
        self.events = []
        self.file.readline()  # the greeting
        self.command("qmp_capabilities")

    def command(self, name, **arguments):
        self.sock.sendall(json.dumps({"execute": name, "arguments": arguments}).encode() + b"\n")
        while True:
            answer = json.loads(self.file.readline())
            if "event" in answer:
                self.events.append(answer)
            elif "error" in answer:
                raise RuntimeError(f"{name}: {answer['error']['desc']}")
            else:
                return answer["return"]

    def plug(self, ident, image, serial="", read_only=False):
        self.command("blockdev-add", driver="raw", **{"node-name": f"{ident}-blk",
                     "read-only": read_only, "file": {"driver": "file", "filename": str(image)}})
        self.command("device_add", driver="usb-storage", id=ident, bus="usb.0",
                     drive=f"{ident}-blk", serial=serial, removable=True)

    def pull(self, ident, timeout=30):
        self.command("device_del", id=ident)
        end = time.monotonic() + timeout
        while not any(e["event"] == "DEVICE_DELETED" and e.get("data", {}).get("device") == ident
                      for e in self.events):
            if time.monotonic() > end:
                raise TimeoutError(f"{ident} was not pulled")
            self.sock.settimeout(max(0.1, end - time.monotonic()))
            try:
                self.events.append(json.loads(self.file.readline()))
            except (socket.timeout, json.JSONDecodeError):
                pass
            self.sock.settimeout(None)
        self.command("blockdev-del", **{"node-name": f"{ident}-blk"})


def qemu_command(arch, work, share, kernel, initrd, console):
    interactive = " vm.interactive" if console == "mon:stdio" else ""
    return [*ARCHES[arch]["qemu"], "-accel", "tcg", "-smp", "1", "-nodefaults", "-display",
            "none", "-no-reboot", "-kernel", str(kernel), "-initrd", str(initrd),
            "-append", "console=ttyS1 panic=-1" + interactive, "-serial", console,
            "-serial", f"file:{work}/kernel.log", "-qmp", f"unix:{work}/qmp.sock,server=on,wait=off",
            "-device", "qemu-xhci,id=usb,p2=8,p3=8",
            "-virtfs", f"local,path={share},mount_tag=host,security_model=none,id=host"]


class Machine:
    """A running machine whose console takes shell commands; stopped by close(), whatever
    happened."""

    def __init__(self, arch, work, share):
        self.work = Path(work)
        self.work.mkdir(parents=True, exist_ok=True)
        initrd, kernel = initramfs(arch, self.work)
        self.proc = subprocess.Popen(qemu_command(arch, self.work, share, kernel, initrd, "stdio"),
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=open(self.work / "qemu.err", "wb"))
        self.output = b""
        self.count = 0
        try:
            self.qmp = QMP(self.work / "qmp.sock")
            self.read_until(re.compile(rb"vm: shell ready\r?\n"), 180, "booting")
            # The shell may drop what comes while it sets its terminal up: ask, without quotes
            # that a lost first byte would leave open, until it answers.
            for probe in range(30):
                self.proc.stdin.write(b"echo __ready$((%d + 1))__\n" % probe)
                self.proc.stdin.flush()
                try:
                    self.read_until(re.compile(rb"__ready%d__" % (probe + 1)), 1, "ready")
                    break
                except TimeoutError:
                    pass
        except BaseException:
            self.close()
            raise

    def sh(self, command, timeout=60, check=True):
        """Runs `command` in the guest's shell; its output (status 0 wanted when `check`)."""
        self.count += 1
        marker = re.compile(rb"__%d_status=(\d+)__\r?\n" % self.count)
        self.proc.stdin.write(f'{command}\necho "__{self.count}_status=$?__"\n'.encode())
        self.proc.stdin.flush()
        start = len(self.output)
        found = self.read_until(marker, timeout, command)
        text = self.output[start:found.start()].decode(errors="replace").replace("\r", "")
        if check and found[1] != b"0":
            raise AssertionError(f"guest: {command}: status {found[1].decode()}: {text}")
        return text

    def plug(self, ident, image, serial, disk, tries=2):
        """Plugs a stick and waits until the guest's kernel has made `disk` of it. The emulated
        controller now and then never reports a stick to the guest at all (nothing in its kernel
        log); such a stick is pulled and plugged once more."""
        for _ in range(tries):
            self.qmp.plug(ident, image, serial)
            seen = self.sh(f"i=0; until [ -e /sys/block/{disk} ] || [ $i -ge 100 ]; do "
                           f"i=$((i + 1)); sleep 0.2; done; [ -e /sys/block/{disk} ] && echo seen",
                           timeout=90, check=False)
            if "seen" in seen:
                return
            self.qmp.pull(ident)
        raise TimeoutError(f"guest: {disk} never appeared")

    def read_until(self, pattern, timeout, what):
        """Reads the console until `pattern` shows in what is new; its match."""
        start, end = len(self.output), time.monotonic() + timeout
        while not (found := pattern.search(self.output, start)):
            if time.monotonic() > end or self.proc.poll() is not None:
                raise TimeoutError(f"guest: {what}: {self.output[start:][-2000:]!r}")
            if select.select([self.proc.stdout], [], [], 0.2)[0]:
                self.output += os.read(self.proc.stdout.fileno(), 65536)
        return found

    def close(self):
        if self.proc.poll() is None:
            self.proc.kill()
        self.proc.wait()


def main():
    if len(sys.argv) > 1 and sys.argv[1] in ("plug", "pull"):
        p = argparse.ArgumentParser()
        p.add_argument("what")
        p.add_argument("qmp")
        p.add_argument("id")
        p.add_argument("image", nargs="?")
        p.add_argument("--serial", default="")
        p.add_argument("--read-only", action="store_true")
        a = p.parse_args()
        qmp = QMP(a.qmp)
        qmp.plug(a.id, Path(a.image).resolve(), a.serial, a.read_only) if a.what == "plug" \
            else qmp.pull(a.id)
        return 0
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    p.add_argument("arch", choices=ARCHES)
    p.add_argument("--share", default=str(ROOT / "build"))
    p.add_argument("--work", default=str(ROOT / "build-vm" / "machine"))
    a = p.parse_args()
    Path(a.work).mkdir(parents=True, exist_ok=True)
    initrd, kernel = initramfs(a.arch, a.work)
    print(f"QMP socket: {a.work}/qmp.sock; the share is /host in the guest", flush=True)
    return subprocess.call(qemu_command(a.arch, a.work, a.share, kernel, initrd, "mon:stdio"))


if __name__ == "__main__":
    sys.exit(main())
