"""The unit under systemd, as on a device: the installed packages in a root that was booted, with the real local cloud.
The shipped configuration is used as it is, but for the cloud's URL."""

import re
import time

import pytest

from support.booted_root import BootedRoot
from support.installed_service import CONFIGURATION, STATE, USER
from support.name_server import NameServer
from support.network import Network
from support.node_cloud import MadeDevice
from support.root import root_folder
from support.systemd_service import NAME, SECONDS, SystemdService
from support.waiting import wait_until

UNIT = f"/lib/systemd/system/{NAME}.service"
RUNTIME = f"/run/{NAME}"
GROUP_MAY_READ = f"root:{USER} 640"
ROOT_MAY_READ = "root:root 600"
MOST_EXPOSED = 1.5


@pytest.fixture(scope="module")
def network(architecture):
    if architecture != "amd64":
        pytest.skip("systemd needs system calls that the emulator does not have; the unit is the same on amd64")
    BootedRoot.prepare(architecture)
    with Network() as result:
        yield result


@pytest.fixture(scope="module")
def device(network, tmp_path_factory):
    return MadeDevice(tmp_path_factory.mktemp("device"))


@pytest.fixture(scope="module")
def names(network):
    result = NameServer()
    yield result
    result.close()


@pytest.fixture(scope="module")
def url(cloud):
    """The cloud's, by a name."""
    return cloud.discovery_url.replace("127.0.0.1", "cloud.example")


@pytest.fixture(scope="module")
def installed_service(network, packages, names):
    """Installed while systemd runs. What the packages start is not ready: there is no device yet."""
    with root_folder() as folder, BootedRoot(folder / "root", "amd64") as root:
        root.path("/etc/resolv.conf").unlink(missing_ok=True)
        root.path("/etc/resolv.conf").write_text("nameserver 127.0.0.1\n")
        packages.install(root)
        yield SystemdService(root)


@pytest.fixture
def configured(installed_service, device, url):
    """As an integrator leaves it, and not started."""
    installed_service.systemctl("stop")
    installed_service.drop_in("")
    installed_service.take(device, GROUP_MAY_READ)
    installed_service.configure(url)
    installed_service.mark()
    return installed_service


@pytest.fixture
def ready(configured):
    configured.systemctl("start")
    return configured.wait_ready()


# --- installed

def test_package_enables_and_starts_the_unit(installed_service):
    assert installed_service.systemctl("is-enabled").stdout == "enabled\n"
    installed_service.wait_journal("LOG START")
    assert installed_service.state() == ("active", "running", "success")


def test_systemd_has_nothing_to_say_about_the_unit(installed_service):
    assert installed_service.root.run("systemd-analyze", "verify", "--man=no", UNIT).stdout == ""


def exposure(root, unit):
    """systemd's own judgement, 0 to 10."""
    text = root.run("systemd-analyze", "security", "--offline=true", "--no-pager", unit).stdout
    return float(re.search(r"Overall exposure level for .*: ([0-9.]+) ", text).group(1))


def test_unit_exposes_little(installed_service):
    root = installed_service.root
    assert exposure(root, UNIT) <= MOST_EXPOSED
    bare = root.path("/tmp/bare.service")
    bare.write_text("[Service]\nExecStart=/usr/sbin/sso-discovery-service\n")
    assert exposure(root, "/tmp/bare.service") > 9


# --- running

def started_again(service, process):
    """Until it runs as another process."""
    wait_until(lambda: int(service.show("MainPID")) not in (0, process) and service.state()[1] == "running",
               service.evidence, SECONDS)


def test_client_gets_a_token_and_data(ready, cloud, names):
    assert re.fullmatch(r"eyJ[\w-]+\.[\w-]+\.[\w-]+\n", ready.ask("token", "telemetry").stdout)
    assert cloud.well_known_url in ready.ask("data").stdout
    assert "cloud.example" in names.names


def test_log_goes_to_the_journal(configured, url):
    configured.configure(url, log_level="info")
    configured.systemctl("start")
    configured.wait_ready()
    configured.wait_journal(r"\[DiscoverySSOManager:\d+\] Cloud config successfully retrieved. Creating SsoClient")


def test_runs_as_its_user_and_nothing_more(ready):
    root = ready.root
    numbers = [root.run("id", option, USER).stdout.strip() for option in ("--user", "--group")]
    assert [ready.status("Uid"), ready.status("Gid"), ready.status("Groups")] == [
        [numbers[0]] * 4, [numbers[1]] * 4, [numbers[1]]]
    for name in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"):
        assert int(ready.status(name)[0], 16) == 0
    assert ready.status("NoNewPrivs") == ["1"]
    assert ready.status("Seccomp") == ["2"]
    assert ready.status("Umask") == ["0077"]


def test_keeps_its_cache_to_itself(ready):
    files = ready.root.run("find", STATE, "-printf", "%p %u:%g %m\n").stdout.splitlines()
    assert sorted(files) == [f"{STATE} {USER}:{USER} 700", f"{STATE}/device-0001.cfg {USER}:{USER} 600"]


def test_key_is_readable_through_the_group_alone(configured, device):
    configured.take(device, ROOT_MAY_READ)
    configured.systemctl("start")
    configured.wait_journal(rf"Couldn't open key/certificate file /etc/{NAME}/device.crt")


def test_key_as_a_credential(configured, device, url):
    """The example, with files that root alone can read."""
    configured.take(device, ROOT_MAY_READ)
    example = configured.root.path(f"/usr/share/doc/{NAME}/examples/credentials.conf").read_text()
    configured.drop_in(example)
    paths = dict(re.findall(r'"(\w+_path)": "(.*?)"', example))
    assert sorted(paths) == ["certificate_path", "key_path"]
    configured.configure(url, certificate_provider={"type": "file", **paths})
    configured.systemctl("start")
    configured.wait_ready()
    assert configured.ask("token", "telemetry").stdout.startswith("eyJ")
    process = configured.process
    configured.kill("KILL")
    started_again(configured, process)
    configured.wait_ready()
    assert configured.pauses() == [1]


def test_environment_comes_from_the_defaults_file(configured, url):
    defaults = configured.root.path(f"/etc/default/{NAME}")
    defaults.write_text("CLOUD_ENV=staging\n")
    configured.configure(url, log_level="info")
    configured.systemctl("start")
    defaults.unlink()
    configured.wait_journal("CLOUD_ENV: staging")


def test_starts_at_once_without_the_cloud_and_answers_from_its_cache(ready):
    ready.ask("data")
    ready.configure("http://nowhere.invalid:9/")
    ready.restart()
    ready.wait_ready()
    assert "veloIdConfiguration" in ready.ask("data").stdout


# --- reload

def test_reload_reads_the_new_pair(configured, device, url, tmp_path):
    """In the same process, which stays ready while systemd reloads it."""
    configured.configure(url, log_level="info")
    configured.systemctl("start")
    configured.wait_ready()
    process = configured.process
    for identity in (MadeDevice(tmp_path / "other", "device-0002"), device):
        configured.take(identity, GROUP_MAY_READ)
        configured.systemctl("reload")
        configured.wait_journal(f"The key and the certificate of {identity.id} are read. Starting over with them")
        assert configured.state() == ("active", "running", "success")
    configured.wait_ready()
    assert configured.ask("token", "telemetry").stdout.startswith("eyJ")
    assert configured.process == process
    assert len(configured.wait_journal("LOG START")) == 1


def test_reload_without_a_key_keeps_the_old_one(ready):
    ready.root.path(f"/etc/{NAME}/device.key").unlink()
    ready.systemctl("reload")
    ready.wait_journal(f"Couldn't read the key and the certificate again: Couldn't open key/certificate file "
                       f"/etc/{NAME}/device.key. The old ones stay in use")
    assert ready.ask("token", "telemetry").stdout.startswith("eyJ")
    assert ready.state() == ("active", "running", "success")


def test_reload_finds_the_old_copy_of_a_credential(configured, device, url, tmp_path):
    """So the example says that a new key needs a restart."""
    example = configured.root.path(f"/usr/share/doc/{NAME}/examples/credentials.conf").read_text()
    configured.drop_in(example)
    paths = dict(re.findall(r'"(\w+_path)": "(.*?)"', example))
    configured.configure(url, log_level="info", certificate_provider={"type": "file", **paths})
    configured.systemctl("start")
    configured.wait_ready()
    configured.take(MadeDevice(tmp_path / "other", "device-0002"), ROOT_MAY_READ)
    configured.systemctl("reload")
    configured.wait_journal(f"The key and the certificate of {device.id} are read. Starting over with them")


# --- the end

@pytest.mark.parametrize("command", ["stop", "kill"])
def test_stop_is_clean_and_final(ready, command):
    """By systemctl, and by a stop signal of somebody else."""
    if command == "stop":
        ready.systemctl("stop")
    else:
        ready.kill("TERM")
    wait_until(lambda: ready.state() == ("inactive", "dead", "success"), ready.evidence)
    assert ready.show("ExecMainStatus") == "0"
    assert not ready.root.path(RUNTIME).exists()
    assert ready.root.path(f"{STATE}/device-0001.cfg").exists()
    assert ready.pauses() == []


@pytest.mark.parametrize("signal", ["SEGV", "KILL", "ABRT"])
def test_failure_is_followed_by_a_start_after_a_growing_pause(ready, signal):
    for pause in (1, 2):
        process = ready.process
        before = time.monotonic()
        ready.kill(signal)
        started_again(ready, process)
        assert time.monotonic() - before >= pause
        ready.wait_ready()
    assert ready.pauses() == [1, 2]


def test_rejected_configuration_is_tried_less_and_less_and_never_given_up(configured):
    configured.write_configuration("{")
    configured.systemctl("start")
    configured.wait_journal("Main process exited, code=exited, status=1/FAILURE", 4)
    wait_until(lambda: len(configured.pauses()) == 4, configured.evidence, SECONDS)
    assert configured.pauses() == [1, 2, 4, 8]
    assert configured.state()[:2] == ("activating", "start-pre")


def in_a_pause(service):
    """A pause of at least four seconds has just begun."""
    service.write_configuration("{")
    service.systemctl("start")
    wait_until(lambda: service.pauses()[2:], service.evidence, SECONDS)


def test_stop_in_a_pause_is_immediate(configured):
    in_a_pause(configured)
    before = time.monotonic()
    configured.systemctl("stop")
    assert time.monotonic() - before < 3
    assert configured.state() == ("inactive", "dead", "success")
    assert not configured.root.path(RUNTIME).exists()


def test_restart_in_a_pause_is_immediate_and_starts_from_the_beginning(configured, url):
    in_a_pause(configured)
    configured.configure(url)
    before = time.monotonic()
    configured.systemctl("restart")
    assert time.monotonic() - before < 3
    configured.wait_ready()
    process = configured.process
    configured.kill("KILL")
    started_again(configured, process)
    assert configured.pauses() == [1, 2, 4, 1]


def test_missing_helper_is_no_failure(ready):
    """RestartSec alone holds the next start back."""
    helper = ready.root.path(f"/usr/libexec/{NAME}/restart-pause")
    away = helper.with_name("away")
    helper.rename(away)
    try:
        process = ready.process
        ready.kill("SEGV")
        started_again(ready, process)
        assert ready.pauses() == []
    finally:
        away.rename(helper)


# --- the sandbox: what a process of the unit cannot do, and what the same user can do outside

PROBE = r"""
use strict;
use Socket;
my $queue = 'probe';
my %attempts = (
  'have a folder of its own' => sub { open(my $file, '>', '/var/lib/sso-discovery-service/probe') },
  'write to /run/lock' => sub { open(my $file, '>', '/run/lock/probe') },
  'write to /dev/shm' => sub { open(my $file, '>', '/dev/shm/probe') },
  'make a setuid file' => sub { chmod(04755, '/var/lib/sso-discovery-service/probe') },
  'make shared memory' => sub { my $id = syscall(29, 0, 4096, 01600); $id != -1 && syscall(31, $id, 0, 0) != -1 },
  'make a message queue' => sub { syscall(240, $queue, 0102, 0600, 0) != -1 && syscall(241, $queue) != -1 },
  'see files in /tmp' => sub { -e '/tmp/visible' },
  'see files in /home' => sub { -e '/home/visible' },
  'see other processes' => sub { -e '/proc/1' },
  'see the machine in /proc' => sub { -e '/proc/meminfo' },
  'make a local socket' => sub { socket(my $socket, AF_UNIX, SOCK_STREAM, 0) },
  'make an internet socket' => sub { socket(my $socket, AF_INET6, SOCK_STREAM, 0) },
  'make a netlink socket' => sub { socket(my $socket, 16, SOCK_RAW, 0) },
  'map memory that is writable and executable' => sub { syscall(9, 0, 4096, 7, 0x22, -1, 0) != -1 },
  'make a user namespace' => sub { fork() or exit(syscall(272, 0x10000000) != 0); wait(); $? == 0 },
  'change the execution domain' => sub { syscall(135, 0x0040000) != -1 },
  'change its priority' => sub { setpriority(0, 0, 5) },
  'dump its memory' => sub { open(my $file, '<', '/proc/self/limits'); !grep(/^Max core file size +0 +0 /, <$file>) },
  'run setuid programs' => sub { open(my $file, '<', '/proc/self/status'); !grep(/^NoNewPrivs:\s+1$/, <$file>) },
);
foreach my $name (sort keys %attempts) { print "$name: ", ($attempts{$name}->() ? 'yes' : 'no'), "\n"; }
unlink('/var/lib/sso-discovery-service/probe');
"""
ALLOWED = {"have a folder of its own", "make a local socket", "make an internet socket"}
ATTEMPTS = re.findall(r"^  '(.*?)' =>", PROBE, re.M)


def results(lines):
    return dict(line.split(": ") for line in lines if line.endswith((": yes", ": no")))


@pytest.fixture(scope="module")
def probe(installed_service):
    """The attempts' results in the unit and outside."""
    service = installed_service
    root = service.root
    root.path("/usr/local/bin/probe").write_text("#!/usr/bin/perl\n" + PROBE)
    root.path("/usr/local/bin/probe").chmod(0o755)
    root.run("touch", "/tmp/visible", "/home/visible")
    service.systemctl("stop")
    service.mark()
    service.drop_in("[Service]\nType=oneshot\nRestart=no\nRestartForceExitStatus=\nExecStart=\nExecStart=/usr/local/bin/probe\n")
    service.systemctl("start")
    service.wait_journal("^write to /run/lock: ")
    inside = results(service.journal())
    service.drop_in("")
    outside = root.run("sh", "-c", f"ulimit -S -c unlimited; exec setpriv --reuid={USER} --regid={USER} --init-groups "
                                   "/usr/local/bin/probe")
    return inside, results(outside.stdout.splitlines())


@pytest.mark.parametrize("attempt", ATTEMPTS)
def test_sandbox(probe, attempt):
    inside, outside = probe
    assert outside[attempt] == "yes", "would tell nothing"
    assert inside[attempt] == ("yes" if attempt in ALLOWED else "no")
