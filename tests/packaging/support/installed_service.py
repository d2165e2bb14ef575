"""The installed service in a root, as an integrator sets it up there for a device and its cloud."""

import json
import os
import subprocess

from .ports import ReservedPort
from .root import clean_environment
from .waiting import wait_until

CONFIGURATION = "/etc/sso-discovery-service/config.json"
STATE = "/var/lib/sso-discovery-service"
USER = "sso-discovery"


class InstalledService:
    def __init__(self, root):
        self.root = root
        self._process = None
        self._port = ReservedPort()
        self._output_path = root.folder.parent / "service-output"
        root.run("install", "-d", "-o", USER, "-g", USER, "-m", "0700", STATE)

    @property
    def port(self):
        return self._port.number

    def take_identity(self, device):
        """Key and certificate, readable for the service's group."""
        for name in ("device.key", "device.crt"):
            path = self.root.path(f"/etc/sso-discovery-service/{name}")
            path.write_bytes((device.folder / name).read_bytes())
            self.root.run("chown", f"root:{USER}", f"/etc/sso-discovery-service/{name}")
            os.chmod(path, 0o640)

    def configure(self, url=None):
        """Changes the sample where an integrator has to; its other values stay."""
        path = self.root.path(CONFIGURATION)
        document = json.loads(path.read_text())
        document["sso"]["api_providers"][0]["port"] = self.port
        if url:
            document["sso"]["cloud_config"]["url"] = url
        path.write_text(json.dumps(document, indent=2))

    def launch(self):
        """Starts it as its user."""
        with open(self._output_path, "ab") as output:
            self._process = subprocess.Popen(
                self.root.command("start-stop-daemon", "--start", "--chuid", USER, "--umask", "077", "--exec",
                                  "/usr/sbin/sso-discovery-service", "--", CONFIGURATION),
                env=clean_environment(), stdin=subprocess.DEVNULL, stdout=output, stderr=output)

    def start(self):
        """The same, and waits until it is ready."""
        self.launch()
        wait_until(lambda: self.ask("ping", check=False).returncode == 0 or self._ended(),
                   lambda: f"a ready service; it says {self.output()}", 60)
        assert not self._ended(), self.output()

    def output(self):
        return self._output_path.read_text()

    def wait_output(self, text):
        wait_until(lambda: text in self.output() or self._ended(), lambda: f"{text!r}; it says {self.output()}", 60)
        assert not self._ended(), self.output()

    def _ended(self):
        return self._process.poll() is not None

    def ask(self, *request, check=True):
        """The installed client's answer, with the port of the installed configuration."""
        return self.root.run("sso-client", "--config", CONFIGURATION, *request, check=check)

    def stop(self):
        """A clean stop: exit status 0."""
        self.root.run("start-stop-daemon", "--stop", "--user", USER, "--retry", "TERM/60")
        assert self._process.wait(20) == 0, self.output()

    def close(self):
        if self._process and not self._ended():
            self.root.run("start-stop-daemon", "--stop", "--user", USER, "--signal", "KILL", check=False)
            self._process.wait(20)
        self._port.close()
