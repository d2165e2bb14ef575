"""Lets the kernel run programs of another architecture, so that a root of that architecture can be entered."""

import contextlib
import fcntl
import platform
import subprocess
from pathlib import Path

from .cache import cache_folder

_BINFMT = Path("/proc/sys/fs/binfmt_misc")
_RULE = Path("/usr/lib/binfmt.d/qemu-arm.conf")
_OWN_NAME = "sso-discovery-service-arm"


@contextlib.contextmanager
def emulation(architecture):
    """While this lasts, programs of the architecture run. What was registered for it is taken back by the last user."""
    if architecture != "armhf" or platform.machine().startswith("arm"):
        yield
        return
    with _binfmt_mounted(), open(cache_folder() / "emulation.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not _arm_programs_run():
            name, rest = _RULE.read_text().strip().removeprefix(":").split(":", 1)
            (_BINFMT / "register").write_text(f":{_OWN_NAME}:{rest}")
        fcntl.flock(lock, fcntl.LOCK_SH)
        try:
            yield
        finally:
            _take_back(lock)


def _arm_programs_run():
    """Whether a handler for ARM is registered that works inside a root, which has no emulator (flag F)."""
    magic = "magic 7f454c4601010100000000000000000002002800"
    for handler in _BINFMT.iterdir():
        if handler.name in ("register", "status"):
            continue
        lines = handler.read_text().splitlines()
        if "enabled" in lines and magic in lines and any(line.startswith("flags:") and "F" in line for line in lines):
            return True
    return False


def _take_back(lock):
    own = _BINFMT / _OWN_NAME
    with contextlib.suppress(BlockingIOError):
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        if own.exists():
            own.write_text("-1")


@contextlib.contextmanager
def _binfmt_mounted():
    if (_BINFMT / "register").exists():
        yield
        return
    subprocess.run(["mount", "-t", "binfmt_misc", "binfmt_misc", str(_BINFMT)], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", str(_BINFMT)], check=True)
