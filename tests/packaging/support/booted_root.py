"""A throw-away root in which systemd runs as on a device: its own processes, mounts, host name and control groups."""

import os
import subprocess
from pathlib import Path

from .root import Root, root_archive
from .waiting import wait_until

# Run in new namespaces. Of the kernel's settings, devices and file systems, the root gets what changes nothing outside.
_BOOT = """
set -e
echo 0 >"$2/cgroup.procs"
mount --bind "$1" "$1"
cd "$1"
mount -t proc proc proc
mount --bind proc/sys proc/sys
mount -o remount,bind,ro proc/sys
mount -t sysfs -o ro sysfs sys
mount -t tmpfs -o mode=755 tmpfs run
mount -t tmpfs -o mode=755 tmpfs dev
for device in null zero full random urandom tty; do
  : >"dev/$device"
  mount --bind "/dev/$device" "dev/$device"
done
ln -s /proc/self/fd dev/fd
ln -s pts/ptmx dev/ptmx
mkdir dev/shm dev/pts
mount -t tmpfs -o mode=1777 tmpfs dev/shm
mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts
pivot_root . mnt
umount --lazy /mnt
mount --make-rshared /
exec unshare --cgroup sh -c 'mount -t cgroup2 cgroup2 /sys/fs/cgroup && exec env -i container=root \\
  PATH=/usr/sbin:/usr/bin:/sbin:/bin /lib/systemd/systemd --system --unit=multi-user.target --show-status=no'
"""
_MASKED = ("systemd-logind", "dev-hugepages.mount", "sys-kernel-debug.mount", "sys-kernel-tracing.mount",
           "sys-fs-fuse-connections.mount")
_PACKAGES = ("systemd",)
_BOOT_SECONDS = 60


class BootedRoot(Root):
    """Its files are those of Root with systemd. The network is the one in which it is made."""

    def __init__(self, folder, architecture):
        super().__init__(folder, architecture, _PACKAGES)

    @staticmethod
    def prepare(architecture):
        """Fetches what is needed, for those who have no network later."""
        root_archive(architecture, _PACKAGES)

    def _start(self):
        for name in _MASKED:
            unit = name if "." in name else name + ".service"
            self.path(f"/etc/systemd/system/{unit}").symlink_to("/dev/null")
        self._group = _unified_hierarchy() / f"sso-discovery-service-test-{os.getpid()}"
        self._group.mkdir()
        errors = self.folder.parent / (self.folder.name + ".errors")
        with open(errors, "wb") as stderr:
            self._holder = subprocess.Popen(
                ["unshare", "--mount", "--propagation", "private", "--pid", "--ipc", "--uts", "--fork", "--kill-child",
                 "sh", "-c", _BOOT, "sh", self.folder, self._group],
                stdin=subprocess.DEVNULL, stdout=stderr, stderr=stderr)
        try:
            wait_until(lambda: self._holder.poll() is not None or self._is_booted(),
                       lambda: f"a booted root: {errors.read_text()}", _BOOT_SECONDS)
            assert self._holder.poll() is None, f"systemd has ended: {errors.read_text()}"
        except BaseException:
            self.close()
            raise

    def _is_booted(self):
        state = self.run("systemctl", "is-active", "multi-user.target", check=False)
        return state.stdout.strip() == "active"

    def command(self, *command):
        namespaces = f"/proc/{self._holder.pid}/ns"
        return ["nsenter", f"--mount={namespaces}/mnt", f"--pid={namespaces}/pid_for_children", "--",
                *map(str, command)]

    def close(self):
        super().close()
        wait_until(lambda: _remove(self._group), "the end of the root's processes")


def _unified_hierarchy():
    """Where the machine has control groups of version 2, which version 1 may stand beside."""
    for line in Path("/proc/self/mountinfo").read_text().splitlines():
        fields, _, kind = line.partition(" - ")
        if kind.split()[0] == "cgroup2":
            return Path(fields.split()[4])
    raise RuntimeError("no control groups of version 2 are mounted")


def _remove(group):
    """Removes a control group and those below it; false while processes are in it."""
    try:
        for folder, _, _ in os.walk(group, topdown=False):
            os.rmdir(folder)
    except OSError:
        return False
    return True
