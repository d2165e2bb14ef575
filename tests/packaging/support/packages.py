"""The packages of one architecture, and further versions of them."""

import re
import subprocess
from pathlib import Path

NAMES = ("libssoclient-dev", "libssoclient1", "sso-client", "sso-discovery-service")


class Packages:
    def __init__(self, folder):
        self.folder = Path(folder)
        self.architecture = self.folder.resolve().name
        self.files = {path.name.split("_")[0]: path for path in sorted(self.folder.glob("*.deb"))}
        assert tuple(self.files) == NAMES, f"{folder} has {tuple(self.files)}"

    def field(self, name, field):
        """A field of the package's control file; the empty text if it has none."""
        return subprocess.run(["dpkg-deb", "--field", self.files[name], field], check=True, text=True,
                              stdout=subprocess.PIPE, timeout=60).stdout.strip()

    def depends(self, name):
        """The names of the packages that this one depends on."""
        return {re.match(r"[a-z0-9.+-]+", part).group() for part in self.field(name, "Depends").split(", ")}

    def install(self, root, *options, environment=None):
        """Installs or upgrades all of them at once; what dpkg said."""
        files = [root.take(file) for file in self.files.values()]
        result = root.run("dpkg", *options, "--install", *files, environment=environment)
        root.run("rm", *files)
        return result.stdout

    def unpacked(self, name, folder):
        """Unpacks a package's files into a new folder."""
        subprocess.run(["dpkg-deb", "--extract", self.files[name], folder], check=True, timeout=60)
        return Path(folder)

    def with_version(self, version, folder, edit=lambda name, tree: None):
        """The same packages with another version, in a new folder; edit may change each package's files before."""
        target = Path(folder) / self.architecture
        target.mkdir(parents=True)
        old = self.field("sso-discovery-service", "Version")
        for name, file in self.files.items():
            tree = Path(folder) / name
            subprocess.run(["dpkg-deb", "--raw-extract", file, tree], check=True, timeout=60)
            control = tree / "DEBIAN" / "control"
            control.write_text(re.sub(rf"^(Version: |Depends: .*\(= ){re.escape(old)}", rf"\g<1>{version}",
                                      control.read_text(), flags=re.M))
            edit(name, tree)
            subprocess.run(["dpkg-deb", "--root-owner-group", "--build", tree, target], check=True, timeout=60,
                           stdout=subprocess.DEVNULL)
        return Packages(target)
