"""The example of an init script: the installed one, in a root without systemd, with the real local cloud."""

import json
import re
import socket
from concurrent.futures import ThreadPoolExecutor

import pytest

from support.installed_service import CONFIGURATION, STATE, USER, InstalledService
from support.node_cloud import MadeDevice
from support.root import Root, root_folder
from support.waiting import wait_until

NAME = "sso-discovery-service"
SCRIPT = f"/etc/init.d/{NAME}"
PID_FILE = f"/run/{NAME}.pid"
LOG = f"/var/log/{NAME}.log"
# What the Linux Standard Base says about `status`.
RUNNING, DIED, NOT_RUNNING = (0, f"{NAME} is running\n"), (1, f"{NAME} has died\n"), (3, f"{NAME} is not running\n")


class InitScript:
    """Each call is its exit status and output."""

    def __init__(self, root):
        self.root = root
        self.service = InstalledService(root)
        self.sample = root.path(CONFIGURATION).read_text()
        root.run("rm", "-r", STATE)
        root.run("cp", f"/usr/share/doc/{NAME}/examples/{NAME}", SCRIPT)

    def call(self, action, **options):
        result = self.root.run(SCRIPT, action, check=False, **options)
        return result.returncode, result.stdout

    @property
    def process(self):
        """The number that the script keeps."""
        return int(self.root.run("cat", PID_FILE).stdout)

    def processes(self):
        """All of the service's user."""
        text = self.root.run("sh", "-c", "stat --format '%n %U' /proc/[0-9]* 2>/dev/null; true").stdout
        return [int(number) for number in re.findall(rf"^/proc/(\d+) {USER}$", text, re.M)]

    def status_of_process(self, name):
        text = self.root.run("cat", f"/proc/{self.process}/status").stdout
        return re.search(rf"^{name}:\s*(.*)$", text, re.M).group(1).split()

    def log(self):
        path = self.root.path(LOG)
        return path.read_text() if path.exists() else ""

    def wait_ready(self):
        wait_until(lambda: self.service.ask("ping", check=False).returncode == 0, lambda: f"ready: {self.log()}", 60)

    def kill(self, signal):
        process = self.process
        self.root.run("sh", "-c", f"kill -{signal} {process}")
        wait_until(lambda: process not in self.processes(), "the end of the service")


@pytest.fixture(scope="module")
def shared(architecture, packages):
    with root_folder() as folder, Root(folder / "root", architecture) as root:
        packages.install(root)
        yield InitScript(root)


@pytest.fixture
def script(shared, device, cloud):
    """Nothing runs, there is no log, and the service would find its cloud."""
    shared.root.path(CONFIGURATION).write_text(shared.sample)
    shared.service.take_identity(device)
    shared.service.configure(cloud.discovery_url)
    yield shared
    assert shared.call("stop") == (0, "")
    assert shared.processes() == []
    shared.root.path(LOG).unlink(missing_ok=True)


def mode(script, path):
    return script.root.run("stat", "--format", "%U:%G %a", path).stdout.strip()


def test_client_gets_a_token(script):
    assert script.call("start") == (0, "")
    script.wait_ready()
    assert script.service.ask("token", "telemetry").stdout.startswith("eyJ")


def test_runs_as_its_user_with_files_of_its_own(script):
    script.call("start")
    script.wait_ready()
    assert script.processes() == [script.process]
    groups = script.root.run("id", "--groups", USER).stdout.split()
    assert script.status_of_process("Groups") == script.status_of_process("Gid")[:1] == groups
    assert script.status_of_process("Umask") == ["0077"]
    limits = script.root.run("cat", f"/proc/{script.process}/limits").stdout
    assert re.search(r"^Max core file size +0 +0 ", limits, re.M)
    assert mode(script, STATE) == f"{USER}:{USER} 700"
    assert mode(script, f"{STATE}/device-0001.cfg") == f"{USER}:{USER} 600"
    assert mode(script, LOG) == "root:root 600"
    assert mode(script, PID_FILE).startswith("root:root ")


def test_status_says_what_the_standard_says(script):
    assert script.call("status") == NOT_RUNNING
    script.call("start")
    assert script.call("status") == RUNNING
    script.kill("KILL")
    assert script.call("status") == DIED
    assert script.call("start") == (0, "")
    assert script.call("status") == RUNNING
    assert script.call("stop") == (0, "")
    assert script.call("status") == NOT_RUNNING


def test_second_start_is_a_success_and_starts_nothing(script):
    script.call("start")
    process = script.process
    assert script.call("start") == (0, "")
    assert script.processes() == [process] == [script.process]


@pytest.mark.parametrize("content", [None, "1", "999999", "no number"])
def test_pid_file_of_somebody_else(script, content):
    """None, that of a process of another user, of none, and a damaged one."""
    if content:
        script.root.path("/run").joinpath(f"{NAME}.pid").write_text(content + "\n")
    assert script.call("status")[0] != 0
    assert script.call("stop") == (0, "")
    if content:
        script.root.path("/run").joinpath(f"{NAME}.pid").write_text(content + "\n")
    assert script.call("start") == (0, "")
    assert script.call("status") == RUNNING
    assert script.root.run("test", "-d", "/proc/1", check=False).returncode == 0


@pytest.mark.parametrize("action", ["restart", "force-reload"])
def test_restart(script, action):
    assert script.call(action) == (0, "")
    process = script.process
    assert script.processes() == [process]
    assert script.call(action) == (0, "")
    assert script.processes() == [script.process] != [process]
    assert len(re.findall("^LOG START", script.log(), re.M)) == 2


def test_reload_reads_the_new_pair(script, device, tmp_path):
    document = json.loads(script.root.path(CONFIGURATION).read_text())
    document["sso"]["log_level"] = "info"
    script.root.path(CONFIGURATION).write_text(json.dumps(document))
    script.call("start")
    script.wait_ready()
    process = script.process
    for identity in (MadeDevice(tmp_path / "other", "device-0002"), device):
        script.service.take_identity(identity)
        assert script.call("reload") == (0, "")
        read = f"The key and the certificate of {identity.id} are read. Starting over with them\n"
        wait_until(lambda: read in script.log(), script.log)
    script.wait_ready()
    assert script.service.ask("token", "telemetry").stdout.startswith("eyJ")
    assert script.processes() == [process] == [script.process]
    assert len(re.findall("^LOG START", script.log(), re.M)) == 1


def test_reload_of_what_does_not_run_is_refused(script):
    assert script.call("reload") == (7, f"{NAME} is not running\n")
    script.call("start")
    script.kill("KILL")
    assert script.call("reload") == (7, f"{NAME} is not running\n")


def test_rejected_configuration_is_a_failed_start(script):
    script.root.path(CONFIGURATION).write_text("{")
    assert script.call("start") == (1, f"{NAME} has ended: {LOG} says why\n")
    assert "Key Certificate Provider does not exist. Terminating" in script.log()
    assert script.call("status") == DIED


@pytest.mark.parametrize("path, status, message", [
    (f"/usr/sbin/{NAME}", 5, f"/usr/sbin/{NAME} is not installed\n"),
    (CONFIGURATION, 6, f"{CONFIGURATION} is missing\n")])
def test_what_is_missing_is_said(script, path, status, message):
    script.root.run("mv", path, f"{path}.away")
    try:
        assert script.call("start") == (status, message)
    finally:
        script.root.run("mv", f"{path}.away", path)


def test_other_actions_are_refused(script):
    usage = (2, f"Usage: {SCRIPT} {{start|stop|restart|reload|force-reload|status}}\n")
    assert script.call("fly") == script.call("") == usage


def test_environment_comes_from_the_defaults_file(script):
    document = json.loads(script.root.path(CONFIGURATION).read_text())
    document["sso"]["log_level"] = "info"
    script.root.path(CONFIGURATION).write_text(json.dumps(document))
    defaults = script.root.path(f"/etc/default/{NAME}")
    defaults.write_text('# of the device\nuser=root\nexit 0\nname\n1=2\n\nCLOUD_ENV="sta $(id) ging"')
    script.call("start")
    defaults.unlink()
    wait_until(lambda: "CLOUD_ENV: sta $(id) ging\n" in script.log(), script.log)
    assert script.call("status") == RUNNING
    assert script.root.run("stat", "--format", "%U", STATE).stdout == f"{USER}\n"


def test_stop_waits_for_a_request_that_is_under_way(script):
    with socket.create_server(("127.0.0.1", 0)) as silent, ThreadPoolExecutor() as other:
        silent.settimeout(60)
        script.service.configure(f"http://127.0.0.1:{silent.getsockname()[1]}/")
        script.call("start")
        connection, _ = silent.accept()
        stop = other.submit(script.call, "stop")
        with pytest.raises(TimeoutError):
            stop.result(2)
        assert script.call("status") == RUNNING
        connection.close()
        silent.close()
        assert stop.result(60) == (0, "")
        assert script.processes() == []
