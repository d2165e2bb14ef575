"""Fixtures of the tests of packages. SSO_PACKAGES names the folder of one architecture's packages, as scripts/package
makes it: build/packages/amd64 or build/packages/armhf."""

import os
import signal

import pytest

from support.emulation import emulation
from support.node_cloud import MadeDevice, NodeCloud
from support.packages import Packages
from support.root import RELEASES, Root, root_folder


def pytest_configure():
    """A stop signal ends the run as the keyboard would: the fixtures still end every process."""
    signal.signal(signal.SIGTERM, signal.default_int_handler)


@pytest.fixture(scope="session")
def packages():
    folder = os.environ.get("SSO_PACKAGES")
    if not folder or os.path.basename(os.path.normpath(folder)) not in RELEASES:
        pytest.fail(f"SSO_PACKAGES has to name a folder of packages, {' or '.join(RELEASES)}", pytrace=False)
    return Packages(folder)


@pytest.fixture(scope="session")
def architecture(packages):
    with emulation(packages.architecture):
        yield packages.architecture


@pytest.fixture
def root(architecture):
    """A fresh root without the packages, which has what they depend on."""
    with root_folder() as folder, Root(folder / "root", architecture) as result:
        yield result


@pytest.fixture
def installed(root, packages):
    """A fresh root with the packages."""
    packages.install(root)
    return root


@pytest.fixture(scope="module")
def installed_once(architecture, packages):
    """The same for the tests of one module that leave it as it is."""
    with root_folder() as folder, Root(folder / "root", architecture) as result:
        packages.install(result)
        yield result


@pytest.fixture(scope="module")
def device(tmp_path_factory):
    return MadeDevice(tmp_path_factory.mktemp("device"))


@pytest.fixture(scope="module")
def cloud(device, tmp_path_factory):
    """The real local cloud, for that device."""
    result = NodeCloud(device, tmp_path_factory.mktemp("cloud"), "--scope", "telemetry")
    yield result
    result.kill()
