"""A network of its own for one test, and users that the machine need not have."""

import ctypes
import os
import shutil
import subprocess

from .client_command import run

_CLONE_NEWNET = 0x40000000
_DEADLINE_SECONDS = 60
_libc = ctypes.CDLL(None, use_errno=True)


def _check(result):
    if result != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


class Network:
    """While entered, this thread, and all processes and threads that it starts, are in a network namespace with nothing
    but a loopback interface."""

    def __enter__(self):
        if os.geteuid() != 0:
            raise PermissionError("a network namespace can only be made by root")
        self._before = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        _check(_libc.unshare(_CLONE_NEWNET))
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True, timeout=_DEADLINE_SECONDS)
        return self

    def __exit__(self, *_):
        _check(_libc.setns(self._before, _CLONE_NEWNET))
        os.close(self._before)


def as_user(number):
    """The beginning of a command that runs the rest of it as this user, and with no other right."""
    return ["setpriv", f"--reuid={number}", f"--regid={number}", "--clear-groups", "--bounding-set=-all",
            "--inh-caps=-all", "--no-new-privs"]


class Etc:
    """A copy of /etc with more users, which only commands that are run with it see."""

    def __init__(self, folder, users):
        self.folder = folder
        shutil.copytree("/etc", folder, symlinks=True)
        with open(folder / "passwd", "a") as passwd:
            for name, number in users.items():
                passwd.write(f"{name}:x:{number}:{number}::/nonexistent:/usr/sbin/nologin\n")

    def run(self, *command, **options):
        script = 'mount --bind "$1" /etc && shift && exec "$@"'
        return run(["unshare", "--mount", "--propagation", "private", "sh", "-c", script, "sh", self.folder, *command],
                   seconds=_DEADLINE_SECONDS, **options)
