"""The installed service under systemd, in a booted root."""

import json
import re

from .installed_service import CONFIGURATION
from .waiting import wait_until

NAME = "sso-discovery-service"
DROP_INS = f"/etc/systemd/system/{NAME}.service.d"
SECONDS = 60


class SystemdService:
    def __init__(self, root):
        self.root = root
        self.sample = json.loads(root.path(CONFIGURATION).read_text())
        self.lines = 0

    # --- set up

    def configure(self, url, **changes):
        """The sample with the cloud's URL; changes are keys directly under `sso`."""
        document = json.loads(json.dumps(self.sample))
        document["sso"]["cloud_config"]["url"] = url
        document["sso"].update(changes)
        self.write_configuration(json.dumps(document))

    def write_configuration(self, text):
        self.root.path(CONFIGURATION).write_text(text)

    def take(self, device, owner):
        """Key and certificate for that owner and mode, as in root:sso-discovery 640."""
        names, mode = owner.split()
        for name in ("device.key", "device.crt"):
            path = f"/etc/{NAME}/{name}"
            self.root.path(path).write_bytes((device.folder / name).read_bytes())
            self.root.run("chown", names, path)
            self.root.run("chmod", mode, path)

    def drop_in(self, text):
        """The unit with these lines beyond its own, or without any."""
        path = self.root.path(f"{DROP_INS}/test.conf")
        path.parent.mkdir(exist_ok=True)
        path.write_text(text)
        self.root.run("systemctl", "daemon-reload")

    # --- what systemd does and says

    def systemctl(self, *command, **options):
        return self.root.run("systemctl", *command, NAME, **options)

    def show(self, name):
        return self.systemctl("show", "--value", "--property", name).stdout.strip()

    def state(self):
        return self.show("ActiveState"), self.show("SubState"), self.show("Result")

    @property
    def process(self):
        """The service's number in the root; it runs."""
        number = int(self.show("MainPID"))
        assert number, self.evidence()
        return number

    def status(self, name):
        """A line of the process's status."""
        text = self.root.run("cat", f"/proc/{self.process}/status").stdout
        return re.search(rf"^{name}:\s*(.*)$", text, re.M).group(1).split()

    def kill(self, signal):
        self.systemctl("kill", "--kill-whom=main", f"--signal={signal}")

    def restart(self):
        """From the beginning, whatever was before; a fresh part of the journal begins."""
        self.systemctl("stop")
        self.mark()
        self.systemctl("start")

    def wait_ready(self):
        wait_until(lambda: self.ask("ping", check=False).returncode == 0, self.evidence, SECONDS)
        return self

    def ask(self, *request, check=True):
        return self.root.run("sso-client", "--config", CONFIGURATION, *request, check=check)

    # --- the journal

    def mark(self):
        """From here on the journal counts."""
        self.lines = len(self._journal())

    def journal(self):
        return self._journal()[self.lines:]

    def _journal(self):
        return self.root.run("journalctl", "--quiet", "--output=cat", f"--unit={NAME}", check=False).stdout.splitlines()

    def wait_journal(self, pattern, count=1):
        """Until so many lines match."""
        def found():
            lines = [line for line in self.journal() if re.search(pattern, line)]
            return lines if len(lines) >= count else None
        return wait_until(found, lambda: f"{count} of {pattern!r}: {self.evidence()}", SECONDS)

    def pauses(self):
        """The seconds that were waited before each restart."""
        return [int(number) for number in re.findall(r"started again in (\d+) s", "\n".join(self.journal()))]

    def evidence(self):
        return f"{self.state()}, {self.journal()[-40:]}"
