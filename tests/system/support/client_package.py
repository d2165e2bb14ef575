"""The client as a package: built on its own, installed somewhere, and used by programs from there."""

import os
import re
import shlex
from pathlib import Path

from .client_command import run

PROJECT = Path(__file__).resolve().parents[3]
CLIENT = PROJECT / "client"
BUILD_SECONDS = 120  # for one step of a build on a busy machine


def must(*command, **environment):
    """Run a tool that has to succeed without a warning; returns what it printed."""
    ended = run(command, environment=environment, seconds=BUILD_SECONDS)
    assert ended.status == 0 and "warning" not in ended.stderr.lower(), (command, ended.stdout[-3000:], ended.stderr)
    return ended.stdout


def warns_or_fails(*command):
    ended = run(command, seconds=BUILD_SECONDS)
    return ended.status != 0 or ended.stdout + ended.stderr != ""


class ClientBuild:
    """A release build with nothing but a C compiler."""

    def __init__(self, folder, *options):
        self.folder = folder
        must("cmake", "-S", CLIENT, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
             "-DSSO_WARNINGS_AS_ERRORS=ON", *options, CXX="/bin/false")
        must("cmake", "--build", folder)

    def cached(self, name):
        return re.search(rf"^{name}:\w+=(.*)$", (self.folder / "CMakeCache.txt").read_text(), re.M).group(1)

    @property
    def library_folder(self):
        return self.cached("CMAKE_INSTALL_LIBDIR")

    def install(self, prefix, *options):
        must("cmake", "--install", self.folder, "--prefix", prefix, *options)
        return Installed(prefix, self.library_folder)

    def install_below(self, root):
        """As packagers do: for the configured prefix, but put below another root."""
        must("cmake", "--install", self.folder, DESTDIR=str(root))
        return Installed(root / self.cached("CMAKE_INSTALL_PREFIX").lstrip("/"), self.library_folder)


class Installed:
    """A tree with the package in it."""

    def __init__(self, prefix, library_folder):
        self.prefix = Path(prefix)
        self._library_folder = library_folder

    def moved_to(self, prefix):
        os.rename(self.prefix, prefix)
        return Installed(prefix, self._library_folder)

    @property
    def libraries(self):
        return self.prefix / self._library_folder

    def files(self):
        """All files by their names below the prefix; a link with what it points to."""
        found = (Path(folder, name) for folder, _, names in os.walk(self.prefix) for name in names)
        return sorted(f"{path.relative_to(self.prefix)}{' -> ' + os.readlink(path) if path.is_symlink() else ''}"
                      for path in found)

    def pkg_config(self, *options):
        found_in = str(self.libraries / "pkgconfig")
        return shlex.split(must("pkg-config", *options, "ssoclient", PKG_CONFIG_LIBDIR=found_in))
