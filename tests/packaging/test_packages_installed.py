"""The installed packages in a fresh root of the device's release: files, user, unit."""

import os
import stat

import pytest

from support.installed_service import CONFIGURATION, USER


def test_installation_is_complete(installed_once):
    assert installed_once.run("dpkg", "--audit").stdout == ""
    assert installed_once.run("sh", "-c", "command -v systemctl", check=False).returncode != 0
    assert installed_once.run("sso-client", "--version").stdout.startswith("sso-client 1.")


def test_user_can_log_in_nowhere(installed_once):
    fields = installed_once.run("getent", "passwd", USER).stdout.strip().split(":")
    assert 100 <= int(fields[2]) < 1000
    assert fields[4:] == ["SSO Discovery Service,,,", "/nonexistent", "/usr/sbin/nologin"]
    assert installed_once.run("id", "--name", "--groups", USER).stdout == f"{USER}\n"
    assert installed_once.run("getent", "shadow", USER).stdout.split(":")[1] in ("*", "!", "!*")


@pytest.mark.parametrize("name, expected", [
    ("/etc/sso-discovery-service", "root:root 755"),
    (CONFIGURATION, "root:root 644"),
    ("/usr/sbin/sso-discovery-service", "root:root 755"),
    ("/usr/bin/sso-client", "root:root 755"),
    ("/usr/libexec/sso-discovery-service/restart-pause", "root:root 755"),
    ("/lib/systemd/system/sso-discovery-service.service", "root:root 644"),
])
def test_owner_and_mode(installed_once, name, expected):
    assert installed_once.run("stat", "--format", "%U:%G %a", name).stdout.strip() == expected


def test_no_other_file_belongs_to_the_user_or_is_privileged(installed_once):
    """Of the packages' files, none belongs to somebody else than root, and none is setuid or setgid."""
    files = installed_once.run("dpkg", "--listfiles", "sso-discovery-service", "sso-client", "libssoclient1",
                               "libssoclient-dev").stdout.split()
    for name in filter(None, files):
        status = os.lstat(installed_once.path(name))
        assert (status.st_uid, status.st_gid) == (0, 0), name
        assert not status.st_mode & (stat.S_ISUID | stat.S_ISGID), name


def test_unit_is_enabled(installed_once):
    link = installed_once.path("/etc/systemd/system/multi-user.target.wants/sso-discovery-service.service")
    assert os.readlink(link) == "/lib/systemd/system/sso-discovery-service.service"
