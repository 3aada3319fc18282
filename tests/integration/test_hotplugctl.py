"""hotplugctl against the real daemon: events from helper environments, every query in both
forms, the commands, an exit status for each way a request can end. The kernel's own
events reach listen, and scans find real sticks, in the test machines (tests/vm)."""
import json
import os
import shutil
import subprocess
import time
from pathlib import Path

import pytest

from conftest import BUILD, SHARE, need_sandbox, settings, unwritten, wait_for, write

CTL = BUILD / "client" / "hotplugctl"
USB = "/devices/pci0000:00/0000:00:14.0/usb2/2-1"
SCSI = f"{USB}/2-1:1.0/host6/target6:0:0/6:0:0:0"


def ctl(*args, env=None, timeout=30):
    r = subprocess.run([str(CTL), *args], capture_output=True, text=True, timeout=timeout,
                       env=dict(os.environ, **(env or {})))
    return r.returncode, r.stdout, r.stderr


def uevent(action, name, root, devtype="partition"):
    """The environment a hotplug helper hands over for `name`, as a real kernel's event."""
    disk = name[:3]
    path = f"{SCSI}/block/{disk}" + (f"/{name}" if name != disk else "")
    return {"ACTION": action, "DEVPATH": path, "DEVNAME": name, "MAJOR": "7", "MINOR": "33",
            "SUBSYSTEM": "block", "DEVTYPE": devtype, "SEQNUM": "1"}


@pytest.fixture
def sysfs(disks):
    """A sysfs tree of one USB stick "sdi" whose partitions 1 and 2 are real loop devices (its
    paths short enough for a request's 128-byte fields)."""
    root = Path("/tmp/sys")
    for directory, attributes in [
            (USB, {"idVendor": "0781", "idProduct": "5567", "serial": "4C5300011", "speed": "480",
                   "manufacturer": "SanDisk", "product": "Cruzer"}),
            (SCSI, {"vendor": "SanDisk ", "model": "Cruzer Blade"}),
            (f"{SCSI}/block/sdi", {"removable": "1", "size": "32768", "dev": "7:128"}),
            (f"{SCSI}/block/sdi/sdi1", {"size": "16384", "dev": "7:129"}),
            (f"{SCSI}/block/sdi/sdi2", {"size": "16384", "dev": "7:130"})]:
        for attribute, value in attributes.items():
            write(f"{root}{directory}/{attribute}", value + "\n")
    os.mkdir(root / "block")
    os.symlink(f"..{SCSI}/block/sdi", root / "block" / "sdi")
    sdi = disks("i")
    sdi.plug(1, "mke2fs -q -F -I 128 -t ext3 -L lab IMG")
    sdi.plug(2)
    yield root
    shutil.rmtree(root)


def test_usage_errors_without_a_daemon():
    need_sandbox()
    for args in ([], ["frobnicate"], ["list", "x"], ["info"], ["info", "sd"], ["info", "sdaa"],
                 ["parts", "hda"], ["part", "sdb"], ["part", "sdb", "16"], ["part", "sdb", "-1"],
                 ["mount", "sdb1"], ["umount", "all", "x"], ["--timeout", "0", "list"],
                 ["--timeout"], ["--frob", "list"], ["list", "--minor", "1"],
                 ["add", "--major", "8"], ["add", "--minor", "70000"],
                 ["add", "--minor", "1", "--extra", "1,2"], ["add", "--minor", "1", "--usb", "x" * 128],
                 ["uevent"]):
        status, out, err = ctl(*args, env={"ACTION": ""} if args == ["uevent"] else None)
        assert (status, out, len(err.splitlines())) == (2, "", 1), args
        assert err.startswith("hotplugctl: ") and err.endswith("(see hotplugctl --help)\n")
    assert ctl("--version") == (0, "hotplugctl 1.0.0\n", "")
    assert ctl("--help")[1].startswith("Usage: hotplugctl")
    assert ctl("list") == (3, "", "hotplugctl: hotplugd is not running (no one listens at "
                                  "/tmp/ktipc/ipc-hotplugd.sock)\n")


def test_helper_events_queries_and_commands(sysfs, start, tmp_path):
    need_sandbox()
    settings(drvname="Drive-%D")
    meminfo = tmp_path / "meminfo"
    meminfo.write_text("Dirty: 0 kB\n")
    d = start(meminfo=meminfo)
    # Not for this daemon: other subsystems, names and actions.
    for env in ({"SUBSYSTEM": "net"}, {"DEVNAME": "sr0"}, {"DEVNAME": "loop3"},
                {"DEVNAME": "sdaa1"}, {"ACTION": "change"}):
        assert ctl("--sysfs", str(sysfs), "uevent", env={**uevent("add", "sdi1", sysfs), **env}) \
            == (0, "", ""), env
    for env, error in (({"DEVPATH": "/devices/nowhere/sdi1"}, "leads nowhere"),
                       ({"DEVPATH": "/.." * 9 + "/etc"}, "leads out of"), ({"MAJOR": "x"}, "MAJOR")):
        status, _, err = ctl("--sysfs", str(sysfs), "add", env={**uevent("add", "sdi1", sysfs), **env})
        assert status == 2 and error in err, env
    # udev's DEVNAME is a path; the kernel's minor is not the identifier.
    assert ctl("--sysfs", str(sysfs), "uevent",
               env={**uevent("add", "sdi1", sysfs), "DEVNAME": "/dev/sdi1"})[0] == 0
    assert ctl("--sysfs", str(sysfs), "add", env=uevent("add", "sdi", sysfs, "disk"))[0] == 0
    assert wait_for(lambda: ctl("list")[1].count("sdi") == 1)

    assert ctl("list") == (0, "DISK  VENDOR MODEL              SERIAL               USB ID     "
                              "SPEED\nsdi   SanDisk Cruzer Blade      4C5300011            "
                              "0781:5567  480 Mbit/s\n", "")
    listed = json.loads(ctl("--json", "list")[1])
    assert listed == [{"disk": "sdi", "vendor": "SanDisk", "model": "Cruzer Blade",
                       "serial": "4C5300011", "manufacturer": "SanDisk", "product": "Cruzer",
                       "id_vendor": "0781", "id_product": "5567", "speed": 480, "removable": True,
                       "extra": [0, 0, 0]}]
    # The whole disk, whose device is not attached, stays unknown and unmounted; its size is
    # the probed one. With letters off the drive identifier is the serial's tail.
    status, out, _ = ctl("info", "sdi")
    assert status == 0 and [line.split() for line in out.splitlines()[3:]] == [
        ["PART", "LABEL", "DRIVE", "FS", "SIZE", "MiB", "USED", "MiB", "MOUNTED"],
        ["0", "Drive-00110", "Drive-00110", "unknown", "16", "0", "no"],
        ["1", "Drive-00111", "Drive-00111", "ext3", "6", "0", "yes"]]
    info = json.loads(ctl("--json", "info", "sdi")[1])
    assert [(p["partition"], p["fs"], p["mounted"], p["size_mib"] > 0) for p in info["partitions"]] \
        == [(0, "unknown", False, True), (1, "ext3", True, True)]
    assert ctl("parts", "sdi") == (0, "PART  MOUNTED\n0     no\n1     yes\n", "")
    assert json.loads(ctl("--json", "part", "sdi", "1")[1])["drive_id"] == "00111"
    for args, what in ((["info", "sdz"], "no such disk: sdz"), (["parts", "sdz"], "no such disk"),
                       (["part", "sdi", "3"], "no such partition: sdi 3"),
                       (["umount", "sdz"], "no such disk: sdz"), (["mount", "sdz"], "no such disk")):
        assert ctl(*args) == (5, "", f"hotplugctl: {what}\n" if ":" in what else ctl(*args)[2])

    # Safe removal refused while data is unwritten, then done; mounted again.
    with unwritten(meminfo, "/tmp/dev/sdi1"):
        assert ctl("umount", "sdi") == (1, "", "hotplugctl: refused: data not yet written to disk, "
                                               "or a partition still busy; try again\n")
        status, _, err = ctl("--timeout", "1", "umount", "sdi")
        assert status == 4 and "may still carry the request out" in err, "a second is too short"
        time.sleep(3)
    assert ctl("umount", "sdi") == (0, "unmounted sdi: safe to remove\n", "")
    assert not os.path.ismount(f"{SHARE}/Drive-00111")
    assert json.loads(ctl("--json", "mount", "all")[1]) == {"disk": "all", "command": "mount",
                                                            "done": True}
    assert os.path.ismount(f"{SHARE}/Drive-00111")

    # Events as given: sdi2 added with the three extra words, sdi1 removed.
    assert ctl("add", "--major", "7", "--minor", str(8 * 16 + 2), "--usb", f"{sysfs}{USB}",
               "--block", f"{sysfs}{SCSI}/block/sdi/sdi2", "--extra", "7,8,9")[0] == 0
    assert ctl("remove", env=uevent("remove", "sdi1", sysfs))[0] == 0
    assert wait_for(lambda: ctl("parts", "sdi")[1] == "PART  MOUNTED\n0     no\n2     yes\n", 8)
    assert json.loads(ctl("--json", "list")[1])[0]["extra"] == [0, 0, 0], "sdi's first record"
    # What is present, as the kernel announced it: the disk before its partitions.
    assert ctl("--sysfs", str(sysfs), "scan") == (0, "add sdi (major 7, id 128)\nadd sdi1 (major 7, "
                                                  "id 129)\nadd sdi2 (major 7, id 130)\n", "")
    assert ctl("stop") == (0, "", "")
    assert d.proc.poll() == 255, "ended, grace period and all, when stop returns"
