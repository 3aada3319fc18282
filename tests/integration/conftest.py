"""Shared set-up of the black-box tests: paths of the repository, its build and the sandbox."""
import os
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
SANDBOX = ROOT / "tests" / "sandbox" / "run"
HOST_STATE = ROOT / "tests" / "sandbox" / "host-state"
BUILD = Path(os.environ.get("HOTPLUGD_BUILD_DIR", ROOT / "build"))
ON_CI = os.environ.get("CI") == "true"


def pytest_configure(config):
    # The sandbox puts a fresh tmpfs on /tmp: files shared with sandboxed commands must live
    # elsewhere, so the temporary directories go beside the build.
    if not config.option.basetemp:
        config.option.basetemp = str(ROOT / "build" / "pytest-tmp")


def need_root():
    """Skips off CI when the test needs root; on CI that is a failure."""
    if os.geteuid() != 0:
        if ON_CI:
            pytest.fail("this test needs root, and CI runs as root")
        pytest.skip("needs root")


def in_sandbox(*command, sandbox_args=(), **kwargs):
    """Runs `command` through tests/sandbox/run and returns the CompletedProcess."""
    kwargs.setdefault("capture_output", True)
    kwargs.setdefault("text", True)
    kwargs.setdefault("timeout", 120)
    return subprocess.run([str(SANDBOX), *sandbox_args, "--", *command], **kwargs)


@pytest.fixture
def host_state():
    """The host's mounts and fixed paths before the test; compared again after it."""
    before = subprocess.run([str(HOST_STATE)], capture_output=True, text=True, check=True).stdout
    yield before
    after = subprocess.run([str(HOST_STATE)], capture_output=True, text=True, check=True).stdout
    assert after == before, "the host changed during the test"
