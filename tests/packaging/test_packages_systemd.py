"""The packages' scripts where systemd runs: a booted root with the service in use, upgraded, removed and purged."""

import pytest

from support.booted_root import BootedRoot
from support.installed_service import CONFIGURATION, STATE, USER
from support.network import Network
from support.node_cloud import MadeDevice, NodeCloud
from support.root import root_folder
from support.systemd_service import NAME, SystemdService


@pytest.fixture
def service(architecture, packages, tmp_path):
    """Installed, and ready with a device and its cloud."""
    if architecture != "amd64":
        pytest.skip("systemd needs system calls that the emulator does not have; the scripts are the same on amd64")
    BootedRoot.prepare(architecture)
    device = MadeDevice(tmp_path / "device")
    with Network(), root_folder() as folder, BootedRoot(folder / "root", architecture) as root:
        cloud = NodeCloud(device, tmp_path)
        try:
            packages.install(root)
            result = SystemdService(root)
            result.take(device, f"root:{USER} 640")
            result.configure(cloud.discovery_url)
            result.restart()
            yield result.wait_ready()
        finally:
            cloud.kill()


def users_of_processes(root):
    return set(root.run("sh", "-c", "stat --format %U /proc/[0-9]*", check=False).stdout.split())


def test_upgrade_restarts_the_service_and_purge_ends_it(service, packages, tmp_path):
    root, process = service.root, service.process
    configuration = root.path(CONFIGURATION).read_text()

    packages.with_version("1.0.0+test1", tmp_path / "newer").install(root)
    assert service.wait_ready().process != process
    assert root.path(CONFIGURATION).read_text() == configuration

    assert USER in users_of_processes(root)
    root.run("dpkg", "--remove", NAME)
    assert USER not in users_of_processes(root)
    assert root.path(STATE).is_dir()

    root.run("dpkg", "--purge", NAME)
    assert not root.path(STATE).exists()
    assert root.run("find", "/", "-xdev", "-name", f"*{NAME}*", "-not", "-path", "/var/lib/dpkg/*").stdout == ""
    assert root.run("getent", "passwd", USER, check=False).stdout == ""
    assert root.run("systemctl", "list-unit-files", "--no-legend", f"{NAME}*", check=False).stdout == ""
