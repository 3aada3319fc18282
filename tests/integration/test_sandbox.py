"""The test sandbox: fixed paths become private tmpfs and nothing of it reaches the host."""
import os
import shutil
import subprocess
import tempfile
from pathlib import Path

from conftest import SANDBOX, in_sandbox, need_root

FIXED_DIRS = ["/var/run", "/var/lock", "/tmp/ktipc", "/var/etc/kelto", "/etc/sysconfig",
              "/etc/scripts", "/tmp/share"]


def test_fixed_paths_are_fresh_writable_tmpfs(host_state):
    need_root()
    script = r"""
set -e
for d in "$@"; do
    [ "$(stat -f -c %T "$d")" = tmpfs ] || { echo "$d is not a tmpfs"; exit 1; }
    # /var/lock lives in /var/run (a symlink to /run/lock), and mount(8) keeps /run/mount.
    left=$(ls -A "$d" | grep -vxE 'lock|mount' || true)
    [ -z "$left" ] || { echo "$d is not empty: $left"; exit 1; }
    echo written > "$d/probe"
done
echo "$HOTPLUGD_SANDBOX $HOTPLUGD_SHARE_DIR"
"""
    result = in_sandbox("bash", "-c", script, "sandbox-check", *FIXED_DIRS)
    assert result.returncode == 0, result.stdout + result.stderr
    assert result.stdout.strip() == "1 /tmp/share"
    for d in ["/var/etc", "/etc/sysconfig", "/etc/scripts", "/tmp/share"]:
        if not os.path.exists(d):
            continue  # present on the host before: then only its content must be untouched
        assert not os.path.exists(os.path.join(d, "probe"))


def test_meminfo_and_eeprom_bind_mounts(host_state, tmp_path):
    need_root()
    meminfo = tmp_path / "meminfo"
    meminfo.write_text("MemTotal:  61440 kB\nDirty:  4096 kB\n")
    eeprom = tmp_path / "eeprom"
    eeprom.write_bytes(b"")
    script = "cat /proc/meminfo; echo archive > /dev/kteeprom"
    result = in_sandbox("sh", "-c", script,
                        sandbox_args=["--meminfo", str(meminfo), "--eeprom", str(eeprom)])
    assert result.returncode == 0, result.stderr
    assert result.stdout == meminfo.read_text()
    assert eeprom.read_text() == "archive\n", "writes to /dev/kteeprom reach the bound file"
    assert not Path("/dev/kteeprom").exists()
    assert "MemTotal:  61440 kB" not in Path("/proc/meminfo").read_text()


def test_exit_status_and_host_tmp_hidden(host_state, tmp_path):
    need_root()
    marker = Path("/tmp") / f"hotplugd-sandbox-marker-{os.getpid()}"
    marker.write_text("host")
    try:
        result = in_sandbox("sh", "-c", f"test ! -e {marker} && touch /tmp/inner && exit 7")
        assert result.returncode == 7, result.stderr
        assert not Path("/tmp/inner").exists()
        kept = in_sandbox("sh", "-c", f"cat {marker}", sandbox_args=["--keep-tmp"])
        assert kept.returncode == 0 and kept.stdout == "host"
    finally:
        marker.unlink()


def test_checkout_under_tmp_stays_reachable(host_state):
    """CI may clone the project under /tmp: the fresh /tmp must not hide its tests."""
    need_root()
    checkout = Path(tempfile.mkdtemp(prefix="hotplugd-checkout-", dir="/tmp"))
    try:
        scripts = checkout / "tests" / "sandbox"
        scripts.mkdir(parents=True)
        for name in ("run", "host-state"):
            shutil.copy2(SANDBOX.parent / name, scripts / name)
        (checkout / "input").write_text("from the host")
        # Inside, /tmp is fresh: it holds only the fixed paths and the carried checkout.
        others = f"ls -A /tmp | grep -v -x -e ktipc -e share -e {checkout.name}"
        script = f'cat {checkout}/input > {checkout}/output && test -z "$({others})"'
        result = subprocess.run([str(scripts / "run"), "--", "sh", "-c", script],
                                capture_output=True, text=True, timeout=60)
        assert result.returncode == 0, result.stderr
        assert (checkout / "output").read_text() == "from the host", "written through to the host"
        home = Path(os.environ.get("HOME", "/root"))
        assert not list(home.glob(".sandbox.*")), "the staging area outside /tmp is removed"
    finally:
        shutil.rmtree(checkout)
