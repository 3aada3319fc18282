"""The daemon's costs against the physical floor, measured side by side in one run: query round
trips against a raw datagram echo of the same reply sizes (bench/query.c, bench/echo.c); hot-plug
latency and the safe-removal reply on real loop devices, less the waits the rules prescribe and
the tools' own run time; idle wake-ups and CPU time; resident memory. Runs inside
scripts/sandbox/run (bench/run.sh starts it).

usage: bench.py BUILD TOOLS"""
import fcntl
import math
import os
import re
import socket
import struct
import subprocess
import sys
import time
from pathlib import Path

BUILD, TOOLS = Path(sys.argv[1]), Path(sys.argv[2])
SERVER, ECHO = "/tmp/ktipc/ipc-hotplugd.sock", "/tmp/ktipc/bench-echo.sock"
QUERIES = [(101, ""), (102, "sdb"), (103, "sdb"), (104, "1sdb")]
# The clients on the first core, both servers on the second: each round trip crosses cores the
# same way for the daemon and the echo, whatever the scheduler would have chosen for either.
CLIENT_CPU, SERVER_CPU = (["taskset", "-c", "0"], ["taskset", "-c", "1"]) if os.cpu_count() > 1 \
    else ([], [])


def write(path, text):
    Path(path).parent.mkdir(parents=True, exist_ok=True)
    Path(path).write_text(text)


def ask(sock, data):
    sock.sendto(data, SERVER)
    return sock.recv(65536)


def event(kind, minor, major=0, usb="", block=""):
    return struct.pack("<iHH4x128s128s128sIII8x", kind, major, minor, usb.encode(), b"",
                       block.encode(), 0, 0, 0)


def add(sock, disk, partition):
    """An add of a device that is not there (major 0 has no driver): recorded, never mounted."""
    sock.sendto(event(1, 16 * disk + partition), SERVER)


def wait_listed(sock, disks, partitions_of_last):
    """Until the batch is over: `disks` listed, the last with its partitions."""
    last = b"sd" + bytes([ord("a") + disks - 1])
    while True:
        listed = ask(sock, struct.pack("<i", 101))
        count = struct.unpack("<I", ask(sock, struct.pack("<i", 103) + last)[:4])[0]
        if len(listed) == 8 * disks and count == partitions_of_last:
            return
        time.sleep(0.2)


def rss_kib(pid):
    return int(re.search(r"VmRSS:\s+(\d+)", Path(f"/proc/{pid}/status").read_text())[1])


def activity(pid):
    """Times the daemon's threads were scheduled, and its CPU time in clock ticks."""
    runs = sum(int(Path(f"/proc/{pid}/task/{t}/schedstat").read_text().split()[2])
               for t in os.listdir(f"/proc/{pid}/task"))
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return runs, int(fields[11]) + int(fields[12])


def idle(pid, seconds=10):
    """Wake-ups and CPU milliseconds per minute while nothing happens."""
    before = activity(pid)
    time.sleep(seconds)
    after = activity(pid)
    scale = 60 / seconds
    return ((after[0] - before[0]) * scale,
            (after[1] - before[1]) * 1000 / os.sysconf("SC_CLK_TCK") * scale)


# The appliance's scripts and event program: each records its call and when it started and ended.
RECORDER = '#!/bin/sh\nt=$(date +%s.%N)\necho "{name} $1 $2 $t $(date +%s.%N)" >> /tmp/calls.log\n'
DISK = 22  # sdw: partitions 1 and 2 are /dev/loop353 and /dev/loop354


def calls():
    """(name, first two arguments, start, end) of each recorded call so far."""
    try:
        lines = Path("/tmp/calls.log").read_text().splitlines()
    except OSError:
        return []
    return [(f"{w[0]} {w[1]} {w[2]}".strip(), float(w[-2]), float(w[-1]))
            for w in (line.split(" ") for line in lines)]


def waited(run):
    """How long the process runner waits for a child that runs `run` seconds: whole 100 ms
    polling steps."""
    return max(1, math.ceil(run / 0.1)) * 0.1


def until(condition, timeout=20):
    end = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError("the daemon did not get there")
        time.sleep(0.01)


def median(values):
    return sorted(values)[len(values) // 2]


def plug_and_removal(sock, rows, rounds=5):
    """Two ext2 partitions plugged one at a time, then removed safely together, `rounds` times,
    each request sent to an idle daemon. Hot-plug latency: add sent to add script started, less
    the runner's wait for disktype (its own run time, measured alone, in whole polling steps;
    DMOUNT is 0). Safe removal: request sent to reply, less the second after sync, the runner's
    wait for the event program (whole polling steps) and the platform script's run times (the
    shell runs scripts, and the daemon waits for them without polling)."""
    minors = [16 * DISK + 1, 16 * DISK + 2]
    made = [n for n in minors if not os.path.exists(f"/sys/block/loop{n}")]
    for n in minors:
        # 128-byte inodes: disktype calls these Ext2, so they are mounted without trying others.
        subprocess.run(f"truncate -s 16M /tmp/p{n}.img && mke2fs -q -F -I 128 -t ext2 "
                       f"/tmp/p{n}.img >/dev/null 2>&1 && losetup /dev/loop{n} /tmp/p{n}.img",
                       shell=True, check=True)
    os.makedirs("/tmp/usb", exist_ok=True)
    try:
        tool = []
        for _ in range(5):
            began = time.monotonic()
            subprocess.run(["disktype", f"/dev/loop{minors[0]}"], capture_output=True)
            tool.append(time.monotonic() - began)
        latencies, overheads = [], []
        for _ in range(rounds):
            for partition, n in enumerate(minors, 1):
                seen = len(calls())
                sent = time.time()
                sock.sendto(event(1, n, 7, "/tmp/usb", f"/sys/block/loop{n}"), SERVER)
                until(lambda: any(c[0] == "prog" for c in calls()[seen:]))
                time.sleep(0.2)  # the runner's last look at the event program: idle again
                script = next(c for c in calls()[seen:] if c[0].startswith("usbmount add"))
                latencies.append(script[1] - sent - waited(median(tool)))
            seen = len(calls())
            sent = time.time()
            reply = ask(sock, struct.pack("<i", 4) + b"sd" + bytes([ord("a") + DISK]))
            took = time.time() - sent
            assert reply == bytes(128), "safe removal refused"
            children = [c for c in calls()[seen:] if c[1] < sent + took]
            overheads.append(took - 1.0 - sum(waited(c[2] - c[1]) if c[0] == "prog" else c[2] - c[1]
                                              for c in children))
            until(lambda: len(calls()) > seen + len(children))  # AFTERMNT: the batch is over
            time.sleep(0.2)
            for n in minors:
                sock.sendto(event(2, n, 7, "/tmp/usb", f"/sys/block/loop{n}"), SERVER)
            until(lambda: ask(sock, struct.pack("<i", 103) + b"sdw")[:4] == bytes(4))
            time.sleep(2.3)  # the removal batch's quiet second and the marking second
        rows.append((f"hot-plug latency less disktype's {waited(median(tool)) * 1000:.0f} ms wait "
                     f"(itself {median(tool) * 1000:.1f} ms)", f"{median(latencies) * 1000:.1f} ms",
                     "", f"max {max(latencies) * 1000:.1f} ms", ""))
        rows.append(("safe-removal reply less the prescribed 1 s, hook and script times",
                     f"{median(overheads) * 1000:.1f} ms", "",
                     f"max {max(overheads) * 1000:.1f} ms", ""))
    finally:
        subprocess.run("umount -q /tmp/share/* 2>/dev/null", shell=True)
        control = os.open("/dev/loop-control", os.O_RDWR)
        for n in minors:
            subprocess.run(["losetup", "-d", f"/dev/loop{n}"], capture_output=True)
            if n in made:
                try:  # LOOP_CTL_REMOVE: the host keeps only the loop devices it had
                    fcntl.ioctl(control, 0x4C81, n)
                except OSError:
                    pass
        os.close(control)


def queries(records, rows):
    for kind, name in QUERIES:
        for clients in (1, 4):
            out = subprocess.run([*CLIENT_CPU, str(TOOLS / "query"), SERVER, ECHO, str(kind), name,
                                  str(clients), "2000"], capture_output=True, text=True,
                                 check=True).stdout.split()
            size, d50, d99, e50, e99 = int(out[0]), *map(float, out[1:])
            rows.append((f"query {kind}, {records} records, {clients} client"
                         f"{'s' if clients > 1 else ''} ({size} B)",
                         f"{d50:.1f} / {e50:.1f} us", f"{d50 / e50:.2f}x",
                         f"{d99:.1f} / {e99:.1f} us", f"{d99 / e99:.2f}x"))


def main():
    write("/var/etc/kelto/nas.conf", "SHAREDIR=/tmp/share\nTMPDIR=/tmp/dev\nDRVNAME=Drive-%D\n"
          "MNTGID=100\nDMOUNT=0\nMAXPART=16\nPROG=/tmp/prog\n")
    for name, path in (("prog", "/tmp/prog"), ("usbmount", "/etc/scripts/usbmount_helper.sh"),
                       ("kill", "/var/etc/kelto/hotplug_kill.sh")):
        write(path, RECORDER.format(name=name))
        os.chmod(path, 0o755)
    os.makedirs("/tmp/dev", exist_ok=True)
    # No unwritten data anywhere, as the safe removal wants: in this namespace only.
    write("/tmp/meminfo", "Dirty: 0 kB\n")
    subprocess.run(["mount", "--bind", "/tmp/meminfo", "/proc/meminfo"], check=True)
    echo = subprocess.Popen([*SERVER_CPU, str(TOOLS / "echo"), ECHO])
    daemon = subprocess.Popen([*SERVER_CPU, str(BUILD / "daemon" / "hotplugd")],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    sock.bind(f"/tmp/ktipc/bench-{os.getpid()}.sock")
    try:
        while not os.path.exists(SERVER) or not os.path.exists(ECHO):
            time.sleep(0.05)
        time.sleep(2)
        rows, pid = [], daemon.pid
        wakeups, cpu = idle(pid)
        rows.append(("idle: wake-ups / CPU per minute, no records", f"{wakeups:.0f}",
                     "", f"{cpu:.0f} ms", ""))
        rows.append(("resident memory, idle", f"{rss_kib(pid)} KiB", "", "", ""))
        for disk, partition in ((0, 1), (0, 2), (1, 1), (1, 2)):
            add(sock, disk, partition)
        wait_listed(sock, 2, 2)
        queries(4, rows)
        plug_and_removal(sock, rows)
        began = time.monotonic()
        for disk in range(26):
            for partition in range(1, 16):
                if (disk, partition) not in ((0, 1), (0, 2), (1, 1), (1, 2)):
                    add(sock, disk, partition)
        wait_listed(sock, 26, 15)
        taken = time.monotonic() - began
        queries(390, rows)
        rows.append(("386 adds of absent devices taken in", f"{taken:.1f} s", "", "", ""))
        wakeups, cpu = idle(pid)
        rows.append(("idle: wake-ups / CPU per minute, 390 records", f"{wakeups:.0f}", "",
                     f"{cpu:.0f} ms", ""))
        rows.append(("resident memory, 390 records", f"{rss_kib(pid)} KiB", "", "", ""))
        flood = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        flood.setblocking(False)
        for _ in range(100_000):
            try:
                flood.sendto(struct.pack("<i", 1) + bytes(412), SERVER)
            except BlockingIOError:
                pass
        ask(sock, struct.pack("<i", 101))
        rows.append(("resident memory, after 100,000 adds offered", f"{rss_kib(pid)} KiB", "",
                     "", ""))
        width = max(len(r[0]) for r in rows)
        print(f"{'measure':<{width}}  {'p50 daemon / echo':>22} {'ratio':>6}  "
              f"{'p99 daemon / echo':>22} {'ratio':>6}")
        for name, a, b, c, d in rows:
            print(f"{name:<{width}}  {a:>22} {b:>6}  {c:>22} {d:>6}")
    finally:
        daemon.kill()
        echo.kill()


if __name__ == "__main__":
    main()
