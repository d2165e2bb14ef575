"""What upgrade, removal and purge leave, and what the packages' scripts ask of systemd or of an init script."""

import os
import re

import pytest

from support.installed_service import CONFIGURATION, STATE, USER
from support.snapshot import differences, snapshot

SERVICE = "sso-discovery-service"
CHANGED = '{"sso": "changed by the integrator"}\n'
INIT_SCRIPT = f"""#!/bin/sh
### BEGIN INIT INFO
# Provides:          {SERVICE}
# Required-Start:
# Required-Stop:
# Default-Start:     2 3 4 5
# Default-Stop:      0 1 6
### END INIT INFO
echo "$@" >>/calls
"""
# Answers as if everything were enabled and running.
SYSTEMCTL = """#!/bin/sh
echo "$@" >>/calls
case "$*" in *is-enabled*) echo enabled ;; *"start "*) exit %d ;; esac
"""


def write_program(root, name, text):
    path = root.path(name)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    path.chmod(0o755)


def calls(root):
    """What was asked of systemctl or the init script since the last time, without the service's name."""
    path = root.path("/calls")
    lines = path.read_text().splitlines() if path.exists() else []
    path.unlink(missing_ok=True)
    actions = [re.sub(rf" {SERVICE}(\.service)?$", "", line).split()[-1] for line in lines]
    return [action for action in actions if action in ("start", "restart", "stop")]


def calls_of_a_life(root, packages, newer):
    """What was asked by the installation, an upgrade, and the removal."""
    def asked(action):
        action()
        return calls(root)
    return [asked(lambda: packages.install(root)), asked(lambda: newer.install(root)),
            asked(lambda: root.run("dpkg", "--remove", SERVICE))]


def purge(root):
    return root.run("dpkg", "--purge", "sso-discovery-service", "sso-client", "libssoclient-dev", "libssoclient1")


@pytest.fixture
def newer(packages, tmp_path):
    return packages.with_version("1.0.0+test1", tmp_path / "newer")


@pytest.fixture
def with_systemd(root):
    """A root in which systemd seems to run."""
    root.path("/run/systemd/system").mkdir(parents=True)
    write_program(root, "/usr/bin/systemctl", SYSTEMCTL % 0)
    return root


@pytest.fixture
def with_init_script(root):
    """A device with another init, in runlevel 2, whose integrator has installed an init script."""
    write_program(root, "/sbin/init", "#!/bin/sh\n")
    write_program(root, "/sbin/runlevel", "#!/bin/sh\necho N 2\n")
    write_program(root, f"/etc/init.d/{SERVICE}", INIT_SCRIPT)
    root.run("update-rc.d", SERVICE, "defaults")
    return root


def test_purge_leaves_nothing(root, packages):
    before, records = snapshot(root), root.run("dpkg-query", "--list").stdout
    packages.install(root)
    root.run("install", "-d", "-o", USER, "-g", USER, "-m", "0700", STATE)
    root.run("install", "-o", USER, "-g", USER, "-m", "0600", "/dev/null", f"{STATE}/device-0001")
    assert differences(before, snapshot(root)) != []
    purge(root)
    assert differences(before, snapshot(root)) == []
    assert root.run("dpkg-query", "--list").stdout == records


def test_purge_after_removal_leaves_nothing(root, packages):
    before = snapshot(root)
    packages.install(root)
    root.run("dpkg", "--remove", SERVICE)
    purge(root)
    assert differences(before, snapshot(root)) == []


def test_purge_takes_the_key_and_the_log_but_not_what_a_link_leads_to(root, packages):
    root.path("/srv/device.crt").write_text("certificate")
    before = snapshot(root)
    packages.install(root)
    root.path(f"/etc/{SERVICE}/device.key").write_text("key")
    root.path(f"/etc/{SERVICE}/device.crt").symlink_to("/srv/device.crt")
    root.path(f"/var/log/{SERVICE}.log").write_text("LOG START")
    purge(root)
    assert differences(before, snapshot(root)) == []


def test_purge_does_not_reach_into_mounts(installed):
    installed.run("sh", "-c", f"mkdir /secure /etc/{SERVICE}/identity && echo key >/secure/device.key && "
                              f"mount --bind /secure /etc/{SERVICE}/identity")
    assert f"/etc/{SERVICE} stays: something is mounted in it" in purge(installed).stdout
    assert installed.run("cat", "/secure/device.key").stdout == "key\n"


def test_purge_with_a_process_of_the_user_leaves_only_the_user(installed):
    installed.run("start-stop-daemon", "--start", "--background", "--user", USER, "--chuid", USER, "--startas", "/bin/sleep",
                  "--", "300")
    assert "The user sso-discovery stays" in purge(installed).stdout
    assert not installed.path(f"/etc/{SERVICE}").exists()
    assert installed.run("dpkg", "--audit").stdout == ""


@pytest.mark.parametrize("preparation", [
    f"groupadd --system {USER}",
    f"useradd --system --gid nogroup --home-dir /nonexistent {USER}",
    f"groupadd --system {USER} && useradd --system --gid {USER} --home-dir /nonexistent {USER}",
], ids=["group", "user of another group", "both"])
def test_user_and_group_that_are_there_are_taken(root, packages, preparation):
    root.run("sh", "-c", preparation)
    packages.install(root)
    assert root.run("id", "--user", USER).stdout.strip().isdecimal()
    assert root.run("getent", "group", USER).stdout.startswith(USER)


def test_ordinary_user_of_that_name_is_refused(root, packages):
    root.run("useradd", "--uid", "1234", USER)
    package = root.take(packages.files[SERVICE])
    outcome = root.run("dpkg", "--install", package, check=False)
    assert outcome.returncode == 1
    assert "is not a system user" in outcome.stdout


def test_purge_without_adduser_leaves_only_the_user(installed):
    installed.run("dpkg", "--remove", SERVICE)
    installed.run("dpkg", "--force-depends", "--remove", "adduser")
    purge(installed)
    assert not installed.path(f"/etc/{SERVICE}").exists()
    assert installed.run("getent", "passwd", USER).returncode == 0


def test_removal_keeps_configuration_state_and_user(installed):
    installed.path(CONFIGURATION).write_text(CHANGED)
    installed.run("install", "-d", "-o", USER, "-g", USER, "-m", "0700", STATE)
    installed.run("dpkg", "--remove", SERVICE)
    assert not installed.path(f"/usr/sbin/{SERVICE}").exists()
    assert installed.path(CONFIGURATION).read_text() == CHANGED
    assert installed.run("stat", "--format", "%U:%G %a", STATE).stdout == f"{USER}:{USER} 700\n"


def test_installation_after_removal_finds_everything_again(installed, packages):
    number = installed.run("id", "--user", USER).stdout
    installed.path(CONFIGURATION).write_text(CHANGED)
    installed.run("dpkg", "--remove", SERVICE)
    packages.install(installed)
    assert installed.path(CONFIGURATION).read_text() == CHANGED
    assert installed.run("id", "--user", USER).stdout == number


def test_upgrade_with_a_new_sample_keeps_the_changed_configuration(installed, packages, tmp_path):
    def change_sample(name, tree):
        if name == SERVICE:
            sample = tree / CONFIGURATION.lstrip("/")
            sample.write_text(sample.read_text().replace("warning", "error"))
    installed.path(CONFIGURATION).write_text(CHANGED)
    packages.with_version("1.0.0+test1", tmp_path / "newer", change_sample).install(installed, "--force-confold")
    assert installed.path(CONFIGURATION).read_text() == CHANGED
    assert '"error"' in installed.path(CONFIGURATION + ".dpkg-dist").read_text()
    purge(installed)
    assert not installed.path(f"/etc/{SERVICE}").exists()


def test_systemd_is_asked_to_start_restart_and_stop(with_systemd, packages, newer):
    assert calls_of_a_life(with_systemd, packages, newer) == [["start"], ["restart"], ["stop"]]


def test_purge_with_systemd_leaves_nothing(with_systemd, packages):
    before = snapshot(with_systemd)
    packages.install(with_systemd)
    purge(with_systemd)
    calls(with_systemd)
    assert differences(before, snapshot(with_systemd)) == []


@pytest.mark.parametrize("hindrance", ["policy", "failing systemctl"])
def test_installation_does_not_fail_where_services_cannot_be_started(with_systemd, packages, newer, hindrance):
    if hindrance == "policy":
        write_program(with_systemd, "/usr/sbin/policy-rc.d", "#!/bin/sh\nexit 101\n")
    else:
        write_program(with_systemd, "/usr/bin/systemctl", SYSTEMCTL % 1)
    packages.install(with_systemd)
    newer.install(with_systemd)
    assert with_systemd.run("dpkg", "--audit").stdout == ""
    assert calls(with_systemd) == ([] if hindrance == "policy" else ["start", "restart"])
    with_systemd.run("dpkg", "--remove", SERVICE)


def test_init_script_of_the_integrator_is_asked_to_restart_and_stop(with_init_script, packages, newer):
    assert calls_of_a_life(with_init_script, packages, newer) == [["restart"], ["restart"], ["stop"]]
    purge(with_init_script)
    assert os.path.exists(with_init_script.path(f"/etc/init.d/{SERVICE}"))
