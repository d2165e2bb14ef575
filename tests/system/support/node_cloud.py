"""The project's own local cloud as a process: a real identity provider, discovery endpoint and key service."""

import json
import os
import re
import shutil
import subprocess
import urllib.request
from pathlib import Path

from cryptography.hazmat.primitives.asymmetric.rsa import RSAPublicNumbers

from .assertion import decode_part
from .service import clean_environment
from .waiting import DEADLINE_SECONDS, wait_until

_READY = re.compile(r"cloud ready discovery=(\S+) issuer=(\S+) key-service=(\d+)\n")


def cloud_folder():
    default = Path(__file__).resolve().parents[3] / "cloud"
    return Path(os.environ.get("SSO_CLOUD", default))


def node(script, *arguments):
    program = shutil.which("node")
    assert program, "node is not installed: the end-to-end tests need it to run the local cloud"
    return [program, str(cloud_folder() / script), *map(str, arguments)]


class MadeDevice:
    """An identity that the cloud's own command made."""

    def __init__(self, folder, device_id="device-0001"):
        subprocess.run(node("make-device.js", "--out", folder, "--id", device_id), check=True, timeout=60,
                       env=clean_environment(), stdout=subprocess.DEVNULL)
        self.id = device_id
        self.folder = Path(folder)
        self.key_path = self.folder / "device.key"
        self.certificate_path = self.folder / "device.crt"


class NodeCloud:
    def __init__(self, device, folder, *options):
        self._log_path = folder / "cloud-stderr"
        with open(folder / "cloud-stdout", "wb") as stdout, open(self._log_path, "wb") as stderr:
            self.process = subprocess.Popen(node("cloud.js", "--device", device.folder, "--verbose", *options),
                                            env=clean_environment(), stdin=subprocess.DEVNULL, stdout=stdout,
                                            stderr=stderr)
        try:
            ready = wait_until(lambda: self._ready(folder / "cloud-stdout"),
                               lambda: f"a ready cloud; it says {self.log()}", 60)
        except AssertionError:
            self.kill()
            raise
        self.discovery_url, self.issuer, port = ready.groups()
        self.key_service_port = int(port)
        self.well_known_url = self.issuer + "/.well-known/openid-configuration"

    def _ready(self, path):
        assert self.process.poll() is None, f"the cloud ended: {self.log()}"
        return _READY.match(path.read_text())

    def log(self):
        return self._log_path.read_text().splitlines()

    def count(self, line):
        return self.log().count(line)

    def ports(self):
        """The options that start another cloud on the same ports."""
        port = re.compile(r":(\d+)")
        return ["--discovery-port", port.search(self.discovery_url).group(1), "--idp-port",
                port.search(self.issuer).group(1), "--key-service-port", str(self.key_service_port)]

    def configuration(self):
        return self._get(self.well_known_url)

    def public_keys(self):
        """The identity provider's signing keys, by their ids."""
        def number(text):
            return int.from_bytes(decode_part(text), "big")
        return {key["kid"]: RSAPublicNumbers(number(key["e"]), number(key["n"])).public_key()
                for key in self._get(self.configuration()["jwks_uri"])["keys"]}

    def _get(self, url):
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        with opener.open(url, timeout=DEADLINE_SECONDS) as reply:
            return json.load(reply)

    def stop(self):
        """A clean stop, which the cloud owes to a stop signal."""
        self.process.terminate()
        try:
            assert self.process.wait(DEADLINE_SECONDS) == 0, self.log()
        finally:
            self.kill()

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
