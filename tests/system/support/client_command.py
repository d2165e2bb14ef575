"""The command sso-client: run to its end, with all that it wrote and its exit status."""

import os
import subprocess
from dataclasses import dataclass

from .service import clean_environment
from .waiting import DEADLINE_SECONDS


@dataclass(frozen=True)
class Outcome:
    """Texts keep every byte (as surrogates where they are not UTF-8)."""
    status: int
    stdout: str
    stderr: str


def success(line):
    return Outcome(0, line + "\n", "")


def failure(status, message):
    """Every failure: nothing on standard output, one line on standard error."""
    return Outcome(status, "", f"sso-client: {message}\n")


def client_environment(**changes):
    """An environment that does not name a port of its own."""
    return {name: value for name, value in clean_environment().items() if name != "SSO_PORT"} | changes


def run(command, *, environment=None, seconds=DEADLINE_SECONDS):
    """Run any program to its end."""
    ended = subprocess.run(list(map(str, command)), env=client_environment(**(environment or {})),
                           stdin=subprocess.DEVNULL, capture_output=True, timeout=seconds, check=False)
    return Outcome(ended.returncode, _text(ended.stdout), _text(ended.stderr))


def _text(data):
    return data.decode(errors="surrogateescape")


class ClientCommand:
    def __init__(self, path):
        self.path = path
        self.folder = os.path.dirname(path)

    def run(self, *arguments, **options):
        return run([self.path, *arguments], **options)

    def ask(self, port, *arguments, **options):
        return self.run("--port", port, *arguments, **options)

    def in_bash(self, script, port):
        """The script finds the command by its name, and the port in SSO_PORT."""
        return run(["bash", "--norc", "--noprofile", "-c", script],
                   environment={"PATH": f"{self.folder}:{os.environ['PATH']}", "SSO_PORT": str(port)})
