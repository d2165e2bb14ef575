"""Fixtures of all system tests. SSO_SERVICE names the service's executable; SSO_CLIENT names the command sso-client,
when it is not the one beside the service."""

import os
import signal

import pytest

from .client_command import ClientCommand
from .device import Device
from .log import LEVELS
from .world import World


def pytest_configure():
    """A stop signal ends the run as the keyboard would: the fixtures still end every process."""
    signal.signal(signal.SIGTERM, signal.default_int_handler)


def executable_at(path, variable):
    if not os.access(path, os.X_OK):
        pytest.fail(f"{variable} names {path}, which cannot be executed", pytrace=False)
    return os.path.abspath(path)


@pytest.fixture(scope="session")
def executable():
    path = os.environ.get("SSO_SERVICE")
    if not path:
        pytest.fail("SSO_SERVICE is not set: it has to name the sso-discovery-service executable", pytrace=False)
    return executable_at(path, "SSO_SERVICE")


@pytest.fixture(scope="session")
def client(executable):
    beside = os.path.join(os.path.dirname(executable), "sso-client")
    return ClientCommand(executable_at(os.environ.get("SSO_CLIENT", beside), "SSO_CLIENT"))


@pytest.fixture(scope="session")
def device(tmp_path_factory):
    return Device(tmp_path_factory.mktemp("device"))


@pytest.fixture(scope="session")
def other_device(tmp_path_factory):
    """The same name with another key."""
    return Device(tmp_path_factory.mktemp("other-device"))


@pytest.fixture
def world(executable, device, tmp_path):
    result = World(executable, device, tmp_path)
    yield result
    result.close()


@pytest.fixture(scope="module")
def module_world(executable, device, tmp_path_factory):
    """For services that the tests of one module share."""
    result = World(executable, device, tmp_path_factory.mktemp("module"))
    yield result
    result.close()


@pytest.fixture
def cloud(world):
    return world.new_cloud()


@pytest.fixture(scope="module")
def service(module_world):
    """A ready service that shows everything, for the tests of one module that leave it ready."""
    return module_world.start_ready(module_world.new_cloud())


@pytest.fixture(scope="module", params=LEVELS)
def service_at_level(request, module_world):
    """The same, at each level in turn."""
    return module_world.start_ready(module_world.new_cloud(), request.param)
