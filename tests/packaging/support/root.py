"""Throw-away Debian roots: made by mmdebstrap, kept as tar files in the cache, unpacked fresh for each use.

    with emulation("armhf"), root_folder() as folder, Root(folder / "root", "armhf") as root:
        root.run("dpkg", "-i", root.take(package))
"""

import contextlib
import hashlib
import os
import shutil
import subprocess
import tempfile
from pathlib import Path

from .cache import cache_folder
from .waiting import wait_until

RELEASES = {"amd64": "bookworm", "armhf": "bullseye"}
_PROJECT = Path(__file__).resolve().parents[3]
# What the packages depend on, so that they can be installed without a mirror.
_DEPENDENCIES = ("adduser", "ca-certificates", "libcurl4", "libjwt0")
# The first process of the root: a shell that waits, and so reaps what is left to it.
_FIRST_PROCESS = ('mount -t proc proc "$1/proc" && mount --rbind /dev "$1/dev" && : >"$2" && '
                  '{ sleep infinity & wait; }')
_DEADLINE_SECONDS = 300
_ENOUGH_MEMORY = 2 << 30


def root_archive(architecture, packages=()):
    """The tar file of a root that has these packages beyond the minimum. Needs emulation(architecture) to make it."""
    mirror = subprocess.run(["bash", "-c", ". scripts/common.sh && debian_mirror"], cwd=_PROJECT, check=True, text=True,
                            stdout=subprocess.PIPE, timeout=_DEADLINE_SECONDS).stdout.strip()
    release = RELEASES[architecture]
    command = ["mmdebstrap", "--quiet", "--mode=root", "--variant=minbase", f"--architectures={architecture}",
               f"--include={','.join([*_DEPENDENCIES, *packages])}", "--dpkgopt=force-unsafe-io", release]
    key = hashlib.sha256("\0".join(command).encode()).hexdigest()[:12]
    path = cache_folder() / f"root-{architecture}-{key}.tar"
    if not path.exists():
        with tempfile.TemporaryDirectory(dir=path.parent) as folder:
            made = Path(folder) / "root.tar"
            subprocess.run([*command, made, f"deb {mirror} {release} main"], check=True, timeout=900)
            made.rename(path)
    return path


@contextlib.contextmanager
def root_folder():
    """A temporary folder for a root: in memory if there is enough, where a root is unpacked ten times as fast."""
    memory = Path("/dev/shm")
    suits = (memory.is_mount() and not os.statvfs(memory).f_flag & os.ST_NOEXEC and
             shutil.disk_usage(memory).free > _ENOUGH_MEMORY)
    with tempfile.TemporaryDirectory(prefix="pkg-", dir=memory if suits else None) as folder:
        yield Path(folder)


def clean_environment():
    return {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root",
            "LC_ALL": "C.UTF-8", "DEBIAN_FRONTEND": "noninteractive"}


class Root:
    """A fresh root with processes and mounts of its own, which all end with it; the network is the machine's."""

    def __init__(self, folder, architecture, packages=()):
        if os.geteuid() != 0:
            raise PermissionError("a root can only be entered by root")
        self.folder = Path(folder)
        self.architecture = architecture
        self.folder.mkdir(parents=True)
        subprocess.run(["tar", "-xf", root_archive(architecture, packages), "-C", self.folder, "--numeric-owner",
                        "--exclude=./dev/*"], check=True, timeout=_DEADLINE_SECONDS)
        self._start()

    def _start(self):
        mounted = self.folder.parent / (self.folder.name + ".mounted")
        self._holder = subprocess.Popen(
            ["unshare", "--mount", "--propagation", "private", "--pid", "--fork", "--kill-child", "sh", "-c",
             _FIRST_PROCESS, "sh", self.folder, mounted], stdin=subprocess.DEVNULL)
        try:
            wait_until(lambda: mounted.exists() or self._holder.poll() is not None, lambda: "the root's mounts", 30)
            if self._holder.poll() is not None:
                raise RuntimeError(f"the root's first process ended with status {self._holder.returncode}")
        except BaseException:
            self.close()
            raise

    def command(self, *command):
        """The machine's command that runs this one in the root."""
        namespaces = f"/proc/{self._holder.pid}/ns"
        return ["nsenter", f"--mount={namespaces}/mnt", f"--pid={namespaces}/pid_for_children", "--", "chroot",
                str(self.folder), *map(str, command)]

    def run(self, *command, check=True, environment=None, timeout=_DEADLINE_SECONDS):
        """Runs a command in the root; the result has its output as text, both streams in stdout."""
        result = subprocess.run(self.command(*command), env={**clean_environment(), **(environment or {})}, text=True,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                timeout=timeout)
        if check:
            assert result.returncode == 0, f"{command} ended with {result.returncode}:\n{result.stdout}"
        return result

    def path(self, name):
        """The machine's name of a file of the root; the root's own symbolic links are not followed."""
        return self.folder / str(name).lstrip("/")

    def take(self, file):
        """Copies a file of the machine into the root's /tmp; its name there."""
        target = self.path("/tmp") / Path(file).name
        target.write_bytes(Path(file).read_bytes())
        return f"/tmp/{target.name}"

    def close(self):
        """Ends all processes of the root, with which its mounts go, and removes its files."""
        self._holder.kill()
        self._holder.wait()
        subprocess.run(["rm", "-rf", "--one-file-system", self.folder], check=True, timeout=_DEADLINE_SECONDS)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
