"""One process of the service under test: started, followed, stopped and always reaped."""

import contextlib
import os
import re
import resource
import signal
import subprocess

from .api_client import ApiClient
from .configuration import as_text
from .log import Log, shown
from .texts import API, MANAGER
from .waiting import DEADLINE_SECONDS, wait_until

_SANITIZER = re.compile(r"ERROR: \w+Sanitizer|WARNING: ThreadSanitizer|runtime error:|LeakSanitizer")
_FROM_OUTSIDE = {"cloud_env", "http_proxy", "https_proxy", "all_proxy", "no_proxy", "tz"}

RETRY = re.compile(r"Couldn't initialize the SSO manager: (.*)\. Will try again in 30 seconds", re.S)


def clean_environment(**changes):
    """This process's environment without anything that the service or libcurl would take notice of."""
    kept = {name: value for name, value in os.environ.items() if name.lower() not in _FROM_OUTSIDE}
    # The thread sanitizer sleeps a second at each exit unless told otherwise; here a thousand processes exit.
    kept["TSAN_OPTIONS"] = "atexit_sleep_ms=20:" + kept.get("TSAN_OPTIONS", "")
    return {**kept, **changes}


def without_leak_check():
    """For a process that ends without a free descriptor, which the leak checker would want for itself."""
    return {"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"}


def without_quarantine():
    """For a process whose memory is measured: the address sanitizer would keep what is freed for a while."""
    none = ":quarantine_size_mb=0:thread_local_quarantine_size_kb=0"
    return {"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + none}


class Service:
    def __init__(self, executable, folder, document, *, environment=None, arguments=(), wrapper=(), stdin=None,
                 log_file=None):
        self.folder = folder
        self.document = document
        self.configuration_path = folder / "config.json"
        if document is not None:
            self.configuration_path.write_text(as_text(document))
        self.stdout_path = folder / "stdout"
        self.stderr_path = folder / "stderr"
        self.expected_stderr = re.compile("")
        self.log = Log(log_file or self.stdout_path)
        with open(self.stdout_path, "wb") as stdout, open(self.stderr_path, "wb") as stderr:
            self.process = subprocess.Popen(
                [*wrapper, executable, str(self.configuration_path), *arguments], cwd=folder,
                env=clean_environment(**(environment or {})), stdin=stdin or subprocess.DEVNULL,
                stdout=stdout, stderr=stderr)

    # --- what it was told

    @property
    def section(self):
        return self.document["sso"]

    @property
    def level(self):
        return self.section.get("log_level", "debug")

    @property
    def api(self):
        return ApiClient(self.section["api_providers"][0]["port"])

    # --- waiting

    def wait_listening(self, port=None):
        """Until the API takes connections, without a connection that it would log."""
        number = port or self.api.port
        wait_until(lambda: _listens(number) or self.process.poll() is not None, f"a listener on port {number}")
        assert self.process.poll() is None, f"the service ended: {self.evidence()}"

    def wait_ready(self, since=0):
        """Until requests are answered; the log is quiet and complete afterwards."""
        if self.level in ("info", "debug", "verbose"):
            self.log.wait_for(MANAGER, "Cloud config successfully retrieved. Creating SsoClient", since)
        self.wait_listening()
        wait_until(lambda: self.api.request("certificate_id")["status"] == "ok",
                   lambda: f"a ready service: {self.evidence()}")
        return self

    def wait_failed(self, since=0):
        """Until an initialisation has failed; returns the reason that the log gives."""
        return RETRY.fullmatch(self.log.wait_for(MANAGER, RETRY, since).text).group(1)

    # --- the log against what is expected

    def expect_log(self, lines, since=0, only=None, without=None):
        assert self.log.pairs(since, only, without) == shown(lines, self.level)

    def expect_main_log(self, lines):
        """All that the main thread wrote so far; the API threads' own lines come at times of their own."""
        self.expect_log(lines, without=API)

    # --- the end

    def send_signal(self, number=signal.SIGTERM):
        self.process.send_signal(number)

    def wait_exit(self, seconds=DEADLINE_SECONDS):
        try:
            return self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"still running after {seconds} s: {self.evidence()}") from None

    def expect_exit(self, status, seconds=DEADLINE_SECONDS):
        assert self.wait_exit(seconds) == status, self.evidence()
        self.check_stderr()

    def stop(self, number=signal.SIGTERM, seconds=DEADLINE_SECONDS):
        self.send_signal(number)
        self.expect_exit(0, seconds)

    def close(self, seconds=DEADLINE_SECONDS):
        """End it in any case. A service that still runs has to obey the stop signal, however the test went."""
        try:
            if self.process.poll() is None:
                self.stop(seconds=seconds)
        finally:
            if self.process.poll() is None:
                self.process.kill()
                self.process.wait()
        self.check_stderr()

    def check_stderr(self):
        text = self.stderr_path.read_text(errors="replace")
        assert not _SANITIZER.search(text), text
        assert self.expected_stderr.fullmatch(text), f"on standard error: {text!r}"

    # --- looking at the process

    def threads(self):
        return os.listdir(f"/proc/{self.process.pid}/task")

    def open_descriptors(self):
        return sorted(int(name) for name in os.listdir(f"/proc/{self.process.pid}/fd"))

    def open_sockets(self):
        folder = f"/proc/{self.process.pid}/fd"
        return [name for name in os.listdir(folder) if os.readlink(f"{folder}/{name}").startswith("socket:")]

    @contextlib.contextmanager
    def descriptors_limited_to(self, count):
        """Descriptors that are open stay open; new ones have to be below the limit."""
        before = resource.prlimit(self.process.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(self.process.pid, resource.RLIMIT_NOFILE, (count, before[1]))
        try:
            yield
        finally:
            if self.process.poll() is None:
                resource.prlimit(self.process.pid, resource.RLIMIT_NOFILE, before)

    def lowest_free_descriptor(self):
        used = self.open_descriptors()
        return next(number for number in range(len(used) + 1) if number not in used)

    def peak_memory_kilobytes(self):
        return self._status_kilobytes("VmHWM")

    def resident_memory_kilobytes(self):
        return self._status_kilobytes("VmRSS")

    def _status_kilobytes(self, name):
        with open(f"/proc/{self.process.pid}/status") as status:
            return int(re.search(rf"{name}:\s+(\d+) kB", status.read()).group(1))

    def evidence(self):
        return (f"status {self.process.poll()}, stderr {self.stderr_path.read_text(errors='replace')[-3000:]!r}, "
                f"log ends in {self.log.entries()[-8:]}")


def _listens(port):
    with open("/proc/net/tcp") as table:
        return any(line.split()[1].endswith(f":{port:04X}") and line.split()[3] == "0A" for line in table
                   if ":" in line)
