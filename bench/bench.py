"""The daemon's costs against the physical floor, measured side by side in one run: query round
trips against a raw datagram echo of the same reply sizes (bench/query.c, bench/echo.c), idle
wake-ups and CPU time, resident memory. Runs inside scripts/sandbox/run (bench/run.sh starts it).

usage: bench.py BUILD TOOLS"""
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


def write(path, text):
    Path(path).parent.mkdir(parents=True, exist_ok=True)
    Path(path).write_text(text)


def ask(sock, data):
    sock.sendto(data, SERVER)
    return sock.recv(65536)


def add(sock, disk, partition):
    sock.sendto(struct.pack("<iHH4x128s128s128sIII8x", 1, 8, 16 * disk + partition, b"", b"",
                            b"", 0, 0, 0), SERVER)


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


def queries(records, rows):
    for kind, name in QUERIES:
        for clients in (1, 4):
            out = subprocess.run([str(TOOLS / "query"), SERVER, ECHO, str(kind), name,
                                  str(clients), "2000"], capture_output=True, text=True,
                                 check=True).stdout.split()
            size, d50, d99, e50, e99 = int(out[0]), *map(float, out[1:])
            rows.append((f"query {kind}, {records} records, {clients} client"
                         f"{'s' if clients > 1 else ''} ({size} B)",
                         f"{d50:.1f} / {e50:.1f} us", f"{d50 / e50:.2f}x",
                         f"{d99:.1f} / {e99:.1f} us", f"{d99 / e99:.2f}x"))


def main():
    write("/var/etc/kelto/nas.conf", "SHAREDIR=/tmp/share\nTMPDIR=/tmp/dev\nDRVNAME=Drive-%D\n"
          "MNTGID=100\nDMOUNT=0\nMAXPART=16\n")
    os.makedirs("/tmp/dev", exist_ok=True)
    echo = subprocess.Popen([str(TOOLS / "echo"), ECHO])
    daemon = subprocess.Popen([str(BUILD / "daemon" / "hotplugd")], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
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
