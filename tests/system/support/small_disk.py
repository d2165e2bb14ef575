"""A disk of a few kilobytes for one process, in a mount namespace that goes with it."""

import os


class SmallDisk:
    """Only the process that the wrapper starts has it mounted; a test sees it through that process."""

    def __init__(self, folder, kilobytes=64, copied=None, full=False, read_only=False):
        """It may start with the files of another folder, and without room for more."""
        self.folder = folder
        steps = [f'mount -t tmpfs -o size={kilobytes}k tmpfs "$0"']
        if copied:
            steps.append(f'cp -R "{copied}/." "$0"')
        if full:
            steps.append('{ cat /dev/zero >"$0/filler" 2>&- || true; }')
        if read_only:
            steps.append('mount -o remount,ro "$0"')
        root = [] if os.geteuid() == 0 else ["--map-root-user"]
        script = " && ".join([*steps, 'exec "$@"'])
        self.wrapper = ["unshare", *root, "--mount", "sh", "-c", script, str(folder)]

    def seen_through(self, service):
        """The folder, as the service sees it."""
        return type(self.folder)(f"/proc/{service.process.pid}/root{self.folder}")
