"""Everything that is in a root, so that two states of it can be compared."""

import hashlib
import os
import stat

# What the package manager writes down about its work; adduser's lock; the user database's copies of its former state,
# and its logs of logins, in which a new user's entry is cleared.
_RECORDS = ("/var/lib/dpkg", "/var/log/dpkg.log", "/var/cache/ldconfig/aux-cache", "/run/adduser", "/etc/passwd-",
            "/etc/shadow-", "/etc/group-", "/etc/gshadow-", "/var/log/faillog", "/var/log/lastlog")
_MOUNTED = ("/dev", "/proc")


def snapshot(root):
    """For each name in the root, what it is: type and mode, owner, and content or target."""
    result = {}
    for folder, folders, files in os.walk(root.folder):
        folders[:] = [name for name in folders if _name(root, folder, name) not in _RECORDS + _MOUNTED]
        for name in folders + files:
            inside = _name(root, folder, name)
            if inside not in _RECORDS:
                result[inside] = _state(os.path.join(folder, name))
    return result


def differences(before, after):
    """Sentences; none if the two are the same."""
    return [f"{name}: {before.get(name, 'missing')} before, {after.get(name, 'missing')} after"
            for name in sorted(before.keys() | after.keys()) if before.get(name) != after.get(name)]


def _name(root, folder, name):
    return os.path.join("/", os.path.relpath(os.path.join(folder, name), root.folder))


def _state(path):
    status = os.lstat(path)
    content = ""
    if stat.S_ISLNK(status.st_mode):
        content = os.readlink(path)
    elif stat.S_ISREG(status.st_mode):
        with open(path, "rb") as file:
            content = hashlib.sha256(file.read()).hexdigest()
    return stat.filemode(status.st_mode), status.st_uid, status.st_gid, content
