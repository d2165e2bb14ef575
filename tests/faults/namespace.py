"""Files of the system that one process alone sees differently."""

import os
import shlex


def seeing(files):
    """A wrapper for a process: in a mount namespace of its own, other files lie over those of the system. `files` goes
    from the system's path to the other file, whose contents may change while the process runs."""
    mounts = [shlex.join(["mount", "--bind", str(other), str(path)]) for path, other in files.items()]
    enter = ["unshare", *([] if os.geteuid() == 0 else ["--map-root-user"]), "--mount"]
    return (*enter, "sh", "-c", " && ".join([*mounts, 'exec "$@"']), "sh")
