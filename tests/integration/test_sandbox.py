"""The test sandbox: fixed paths become private tmpfs and nothing of it reaches the host."""
import os
import shutil
import subprocess
import tempfile
from pathlib import Path

from conftest import SANDBOX, in_sandbox, need_root

FIXED_DIRS = ["/var/run", "/var/lock", "/tmp", "/tmp/ktipc", "/var/etc/kelto", "/etc/sysconfig",
              "/etc/scripts", "/tmp/share"]


def test_fixed_paths_are_fresh_and_private(host_state, tmp_path):
    need_root()
    eeprom = tmp_path / "eeprom"
    eeprom.write_bytes(b"")
    # A checkout under /tmp (a clone made there) is carried into the sandbox's fresh /tmp.
    repo = SANDBOX.resolve().parents[2]
    carried = repo.relative_to("/tmp").parts[0] if repo.is_relative_to("/tmp") else "lock"
    script = r"""
set -e
carried=$1
shift
for d in "$@"; do
    [ "$(stat -f -c %T "$d")" = tmpfs ] || { echo "$d is not a tmpfs"; exit 1; }
    # /var/lock lies in /var/run (a link to /run/lock), and mount(8) keeps /run/mount.
    left=$(ls -A "$d" | grep -vxF -e lock -e mount -e ktipc -e share -e "$carried" || true)
    [ -z "$left" ] || { echo "$d is not empty: $left"; exit 1; }
    echo written > "$d/probe"
done
echo archive > /dev/kteeprom
echo "$HOTPLUGD_SANDBOX $HOTPLUGD_SHARE_DIR"
exit 7
"""
    result = in_sandbox("bash", "-c", script, "check", carried, *FIXED_DIRS,
                        sandbox_args=["--eeprom", str(eeprom)])
    assert (result.returncode, result.stdout) == (7, "1 /tmp/share\n"), result.stderr
    assert eeprom.read_text() == "archive\n", "writes to /dev/kteeprom reach the bound file"
    assert not Path("/dev/kteeprom").exists()
    assert not any(os.path.exists(f"{d}/probe") for d in FIXED_DIRS)


def test_checkout_under_tmp_stays_reachable(host_state):
    """CI may clone the project under /tmp: the fresh /tmp must not hide its tests."""
    need_root()
    checkout = Path(tempfile.mkdtemp(prefix="hotplugd-checkout-", dir="/tmp"))
    home = Path(os.environ.get("HOME", "/root"))
    staged_before = set(home.glob(".sandbox.*"))
    try:
        scripts = checkout / "tests" / "sandbox"
        scripts.mkdir(parents=True)
        for name in ("run", "host-state"):
            shutil.copy2(SANDBOX.parent / name, scripts / name)
        (checkout / "input").write_text("from the host")
        others = f"ls -A /tmp | grep -v -x -e ktipc -e share -e {checkout.name}"
        script = f'cat {checkout}/input > {checkout}/output && test -z "$({others})"'
        result = subprocess.run([str(scripts / "run"), "--", "sh", "-c", script],
                                capture_output=True, text=True, timeout=60)
        assert result.returncode == 0, result.stderr
        assert (checkout / "output").read_text() == "from the host", "written through to the host"
        assert set(home.glob(".sandbox.*")) == staged_before, "staging directory left in $HOME"
    finally:
        shutil.rmtree(checkout)
