"""The whole project, built once and then installed for different prefixes."""

import os
from pathlib import Path

from .client_package import must

PROJECT = Path(__file__).resolve().parents[3]


class ProjectBuild:
    """A release build in this folder, which may have one already."""

    def __init__(self, folder):
        self.folder = Path(folder)

    def configure(self, prefix, *options):
        """Takes back what an earlier test has set."""
        must("cmake", "-S", PROJECT, "-B", self.folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
             "-USSO_SYSTEMD_UNIT_DIR", "-UCMAKE_INSTALL_*", f"-DCMAKE_INSTALL_PREFIX={prefix}", *options)
        must("cmake", "--build", self.folder)

    def install(self, *options, below=""):
        """With below, as packagers do: for the configured prefix, but put below another root."""
        must("cmake", "--install", self.folder, *options, DESTDIR=str(below))


def files(folder):
    """The names of all files in the folder."""
    return sorted(os.path.relpath(os.path.join(path, name), folder) for path, _, names in os.walk(folder)
                  for name in names)
