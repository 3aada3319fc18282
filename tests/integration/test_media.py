"""What the daemon makes of each kind of medium (file system, label, name, mount), of a node
and of a node path already taken."""
import os
import struct
from pathlib import Path

from conftest import SHARE, calls, request, settings, wait_for, write

VFAT = "\tvfat\n" in Path("/proc/filesystems").read_text()
ENV = f"en_US.UTF-8|C|{SHARE}|/tmp/dev"


def details(client, disk, partition):
    """(label, name, fs type, mounted) of a partition, from its 284-byte details."""
    reply = client.ask(request(104, bytes([partition]) + disk.encode()))
    label, name, _, _, _, _, fs_type, mounted = struct.unpack("<128s128s8sIIIiI", reply)
    return label.rstrip(b"\0").decode(), name.rstrip(b"\0").decode(), fs_type, mounted


def test_each_medium(disks, start, client, tmp_path):
    settings(drvname="%V_%D")
    # ntfs-3g's ntfslabel under the name of the appliance's NTFS label tool.
    write(tmp_path / "bin" / "ntfsvlabel", '#!/bin/sh\nexec ntfslabel "$@"\n', 0o755)
    # On sdf2 mlabel's words follow 108 control bytes: the 128th byte read is never kept.
    write(tmp_path / "bin" / "mlabel", "#!/bin/sh\ncase $2 in */sdf2) printf %0108d 0 | tr 0 "
          "'\\001';; esac\nexec /usr/bin/mlabel \"$@\"\n", 0o755)
    sdf = disks("f", serial="0123456789AB")
    fat32, fat = (20, 17) if VFAT else (0, 0)  # this kernel may have no FAT driver
    media = [  # partition, image, expected label, name, fs type once mounted or not
        (1, "mkfs.vfat -F 32 -n MYLABEL IMG", "40M", "_Volume_label_is_MYLABEL____",
         "Acme_Volume_89AB1", fat32),  # mlabel's whole output is the label
        (2, "mkfs.vfat -F 12 IMG", "2M", "_Volume_has_no_labe", "Acme_Volume_89AB2", fat),
        (4, "mkntfs -q -F -L 'My:Disk [1]' IMG", "8M", "My_Disk_(1)", "Acme_My_89AB4", 0),
        (5, "mkswap IMG", "8M", "Acme_Stick_89AB5", "Acme_Stick_89AB5", 0),
        (6, "true", "8M", "Acme_Stick_89AB6", "Acme_Stick_89AB6", 0),
        (7, "printf 'label: dos\\n,20M,c\\n,,83\\n' | sfdisk -q IMG", "40M", "Acme_Stick_89AB7",
         "Acme_Stick_89AB7", 0),
    ]
    for partition, make, size, *_ in media:
        sdf.plug(partition, make, size)
    sdf.plug(8, ro=True)  # a read-write mount is refused: mounted read-only instead
    sdf.plug(9)
    sdf.plug(10)
    Path("/tmp/dev/sdf9").write_text("")  # a node path taken by something else
    os.symlink(f"/dev/loop{sdf.minor(10)}", "/tmp/dev/sdf10")
    d = start(path=tmp_path / "bin")
    for partition in (1, 2, 4, 5, 6, 7, 8, 9, 10):
        client.send(sdf.event(1, partition))
    assert wait_for(lambda: client.ask(request(101)) != b"", 20)

    media.append((8, "", "", "Acme_Stick_89AB8", "Acme_Stick_89AB8", 33))
    adds = []
    for partition, _, _, label, name, fs_type in media:
        assert details(client, "sdf", partition) == (label, name, fs_type, int(fs_type != 0))
        assert os.path.ismount(f"{SHARE}/{name}") == (fs_type != 0)
        if fs_type:
            word = {20: "vfat32", 17: "vfat", 33: "ext2"}[fs_type]
            adds.append(f"usbmount add sdf {partition} {word} {SHARE}/{name}||{ENV}")
    assert os.statvfs(f"{SHARE}/Acme_Stick_89AB8").f_flag & os.ST_RDONLY
    assert client.ask(request(103, b"sdf"))[4:15] == bytes([0, 1, 1, 0] + [1] * 5 + [0, 0])
    assert [line for line in calls() if "add" in line] == adds
    # The blank partition is tried as each file system in turn, every failure logged.
    where = f"/tmp/dev/sdf6 {SHARE}/Acme_Stick_89AB6"
    tried = [text for _, text in d.texts() if "sdf6" in text]
    assert tried == [f"Error:mount -t vfat {where} "
                     f"({'Invalid argument' if VFAT else 'No such device'})",
                     f"mount -t ntfs-3g {where} (0)", f"Error:mount -t ufsd {where} (No such device)",
                     f"Error:mount -t ext2 {where} (Invalid argument)",
                     f"Error:mount -t ext3 {where} (Invalid argument)"]
    places = [text for pri, text in d.texts() if text.startswith("mount_thread:")]
    assert {p[:p.index("(")] for p in places} == {f"mount_thread:mount_{fs}" for fs in
                                                  ("fat", "ntfs", "ext2", "ext3")}
    assert all(pri == 27 for pri, text in d.texts() if "mount" in text and "sdf" in text)


def test_name_pattern_leading_out_of_the_share_directory(disks, start, client):
    settings(drvname="../Drive-%D")  # as another program may write it: nothing is mounted
    sdg = disks("g")
    sdg.plug(1)
    start()
    client.send(sdg.event(1, 1))
    assert wait_for(lambda: calls(), 10) == [f"prog |AFTERMNT|{ENV}"]
    assert client.ask(request(101)) == b"" and not os.path.exists(f"{SHARE}/../Drive-1")
