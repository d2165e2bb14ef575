"""A device gets its key and certificate, and later others, by the very commands of docs/integration.md."""

import os
import re
import shutil
import signal
from types import SimpleNamespace

import pytest

from support.client_command import Outcome, failure, run
from support.device import Device
from support.document import Document
from support.fake_cloud import TOKEN_PATH
from support.http_server import Raw, Reply
from support.log import error
from support.node_cloud import MadeDevice, NodeCloud
from support.texts import CLIENT, DISCOVERY, MANAGER, cloud_failed, pair_kept, retrying

DOCUMENT = Document("docs/integration.md")
FIRST = DOCUMENT.block("Key and certificate", "sh", "cd ")
CHANGE, BACK = [text for text in DOCUMENT.blocks("Rotate the key", "sh") if text.startswith("cd ")]
BEFORE = DOCUMENT.block("Rotate the key", "sh", "export SSO_PORT")
VERIFY = DOCUMENT.block("Rotate the key", "sh", "# Ends when")

CANNOT_DECRYPT = "Decrypting Discovery data: RSA_private_decrypt() FAILED"
BOTH_FAILED = "Couldn't retrieve cloud configure from the cloud and the backup file"
NOT_READY = f"Cloud discovery failed. System is not initialized{BOTH_FAILED}"


class Folder:
    """Stands for /etc/sso-discovery-service. `systemctl` is put on record, and reloads a service that was named to it;
    whoever runs the test owns the files."""

    def __init__(self, path, stubs):
        self.path = path
        self._stubs = stubs
        self._calls = stubs / "calls"
        path.mkdir()
        stubs.mkdir()
        self._environment = {"PATH": f"{stubs}:{os.environ['PATH']}"}
        self._have_systemctl("")

    def reloads(self, service):
        """Whatever systemctl is asked for does what the unit does for a reload."""
        self._have_systemctl(f"kill -HUP {service.process.pid}")

    def _have_systemctl(self, action):
        self.have("systemctl", f'echo "systemctl $*" >>{self._calls}\n{action}')

    def have(self, program, script):
        """The commands find this in the place of the program."""
        (self._stubs / program).write_text(f"#!/bin/sh\n{script}\n")
        (self._stubs / program).chmod(0o755)

    def run(self, script, identity=None):
        """As in a shell where no failure ends the script. Returns the outcome and what was asked of systemctl."""
        script = script.replace("/etc/sso-discovery-service", str(self.path))
        script = re.sub(r" -o root( -g sso-discovery)?", "", script)
        files = {} if identity is None else {"NEW_KEY": str(identity.key_path),
                                             "NEW_CERTIFICATE": str(identity.certificate_path)}
        self._calls.write_text("")
        outcome = run(["bash", "-uc", script], environment={**self._environment, **files})
        return outcome, self._calls.read_text().splitlines()

    def provider(self):
        return {"type": "file", "key_path": str(self.path / "device.key"),
                "certificate_path": str(self.path / "device.crt")}

    def holds(self, identity):
        return ((self.path / "device.key").read_bytes() == identity.key_path.read_bytes()
                and (self.path / "device.crt").read_bytes() == identity.certificate_path.read_bytes())


DONE = Outcome(0, "", "")
RELOAD = ["systemctl reload sso-discovery-service"]


@pytest.fixture
def folder(tmp_path):
    return Folder(tmp_path / "etc", tmp_path / "stubs")


@pytest.fixture
def cache(world):
    return world.new_folder("cache")


def token_before(client, port):
    return client.in_bash(BEFORE.replace("SSO_PORT=5055", f"SSO_PORT={port}") + 'echo "$token"', port).stdout.strip()


def verify(client, port, token):
    return client.in_bash(f"set -e\ntoken={token}\n" + VERIFY, port)


# --- the commands

def test_commands_put_the_pair_in_place_and_turn_it(folder, device, other_device):
    assert folder.run(FIRST, device) == (DONE, [])
    assert folder.holds(device)
    assert folder.run(CHANGE, other_device) == (DONE, RELOAD)
    assert folder.holds(other_device)
    assert folder.run(BACK) == (DONE, RELOAD)
    assert folder.holds(device)
    assert (folder.path / "identity-2/device.key").stat().st_mode & 0o777 == 0o640


def test_nothing_changes_when_key_and_certificate_do_not_match(folder, device, other_device, tmp_path):
    folder.run(FIRST, device)
    mixed = Device(tmp_path / "mixed", device.key)
    shutil.copy(other_device.certificate_path, mixed.certificate_path)
    outcome, calls = folder.run(CHANGE, mixed)
    assert outcome.status == 1 and calls == []
    assert folder.holds(device)


def test_nothing_changes_when_key_and_certificate_are_swapped(folder, device, other_device):
    folder.run(FIRST, device)
    swapped = SimpleNamespace(key_path=other_device.certificate_path, certificate_path=other_device.key_path)
    outcome, calls = folder.run(CHANGE, swapped)
    assert outcome.status != 0 and calls == []
    assert folder.holds(device)


def test_nothing_changes_when_nothing_can_compare_them(folder, device, other_device):
    folder.run(FIRST, device)
    folder.have("openssl", "echo not here >&2; exit 127")
    outcome, calls = folder.run(CHANGE, other_device)
    assert outcome == Outcome(127, "", "not here\n") and calls == []
    assert folder.holds(device)


# --- the service

def test_rotation_and_back_with_a_real_identity_provider(world, client, folder, cache, tmp_path):
    """One service sees it all. The cloud that knows the new certificate is another one, on the same ports."""
    old, new = (MadeDevice(tmp_path / name) for name in ("old", "new"))
    folder.run(FIRST, old)
    cloud = NodeCloud(old, world.new_folder("cloud"))
    ports = cloud.ports()
    try:
        service = world.start(world.document(cloud.discovery_url, folder.provider(), cache_folder=cache)).wait_ready()
        folder.reloads(service)
        for step, script, identity in [("new", CHANGE, new), ("old again", BACK, old)]:
            token = token_before(client, service.api.port)
            assert token, cloud.log()
            cloud.kill()
            cloud = NodeCloud(identity, world.new_folder(f"cloud {step}"), *ports)
            assert folder.run(script, identity) == (DONE, RELOAD)
            verified = verify(client, service.api.port, token)
            assert (verified.status, verified.stdout) == (0, "device-0001\n"), (step, verified)
            assert cloud.count("idp POST /token 200") == 1, cloud.log()
    finally:
        cloud.kill()


def test_pair_that_cannot_be_read_is_not_taken(world, client, cloud, folder, device, other_device):
    """The commands would not have put it there."""
    folder.run(FIRST, device)
    service = world.start(world.document(cloud.discovery_url, folder.provider())).wait_ready()
    folder.reloads(service)
    assert token_before(client, service.api.port) == "access/1"
    folder.run(CHANGE.replace("mv -T", "rm identity-2/device.key && mv -T"), other_device)
    service.log.wait_for(MANAGER, pair_kept(f"Couldn't open key/certificate file {folder.path}/device.key").text)
    assert client.ask(service.api.port, "token", "telemetry") == Outcome(0, "access/1\n", "")


def test_cache_is_written_anew_for_the_new_key(world, cloud, folder, cache, device, other_device):
    folder.run(FIRST, device)
    document = world.document(cloud.discovery_url, folder.provider(), cache_folder=cache)
    world.start(document).wait_ready().stop()
    folder.run(CHANGE, other_device)
    cloud.device = other_device
    world.start(document).wait_ready().stop()
    cloud.script(cloud.discovery_path, Raw())
    assert world.start(document).wait_ready().api.token_text() == "access/1"


def test_without_the_cloud_the_old_keys_cache_is_no_help(world, client, cloud, folder, cache, device, other_device):
    folder.run(FIRST, device)
    document = world.document(cloud.discovery_url, folder.provider(), cache_folder=cache)
    world.start(document).wait_ready().stop()
    folder.run(CHANGE, other_device)
    cloud.script(cloud.discovery_path, Reply(503))
    service = world.start(document)
    assert service.wait_failed() == BOTH_FAILED
    lines = service.log.pairs()
    assert (DISCOVERY, f"Couldn't retrieve configuration from the backup file: {CANNOT_DECRYPT}") in lines
    assert client.ask(service.api.port, "ping") == failure(5, f"the service answers, but is not ready: {NOT_READY}")
    service.stop()
    folder.run(BACK)
    assert world.start(document).wait_ready().api.token_text() == "access/1"


def test_cloud_that_still_encrypts_to_the_old_certificate(world, cloud, folder, cache, device, other_device):
    folder.run(FIRST, device)
    folder.run(CHANGE, other_device)
    service = world.start(world.document(cloud.discovery_url, folder.provider(), cache_folder=cache))
    assert service.wait_failed() == BOTH_FAILED
    lines = service.log.pairs()
    assert (DISCOVERY, cloud_failed(CANNOT_DECRYPT, caching=True).text) in lines
    assert (MANAGER, retrying(BOTH_FAILED).text) in lines


def test_identity_provider_that_learns_the_certificate_later(world, client, cloud, folder, device):
    folder.run(FIRST, device)
    cloud.script(TOKEN_PATH, Reply(401, b"{}"), None)
    service = world.start(world.document(cloud.discovery_url, folder.provider())).wait_ready()
    assert client.ask(service.api.port, "token", "telemetry") == failure(5, "refused by the service: std::exception")
    assert error(CLIENT, "Curl response code: 401").text in [text for _, text in service.log.pairs(only=CLIENT)]
    assert client.ask(service.api.port, "token", "telemetry") == Outcome(0, "access/1\n", "")


def test_reset_does_not_read_the_new_pair(world, client, cloud, folder, device, other_device):
    folder.run(FIRST, device)
    service = world.start(world.document(cloud.discovery_url, folder.provider())).wait_ready()
    folder.run(CHANGE, other_device)
    since = service.log.mark()
    assert client.ask(service.api.port, "reset") == DONE
    service.wait_ready(since)
    cloud.device = other_device
    since = service.log.mark()
    assert client.ask(service.api.port, "reset") == DONE
    assert CANNOT_DECRYPT in service.wait_failed(since)


def test_service_that_was_started_before_finds_its_key_at_a_reload(world, cloud, folder, device):
    service = world.start(world.document(cloud.discovery_url, folder.provider()))
    assert service.wait_failed() == f"Couldn't open key/certificate file {folder.path}/device.crt"
    folder.run(FIRST, device)
    service.send_signal(signal.SIGHUP)
    service.log.wait_for(MANAGER, "Cloud config successfully retrieved. Creating SsoClient", seconds=10)
    assert service.api.token_text() == "access/1"


@pytest.mark.slow
def test_service_that_was_started_before_finds_its_key(world, cloud, folder, device):
    service = world.start(world.document(cloud.discovery_url, folder.provider()))
    assert service.wait_failed() == f"Couldn't open key/certificate file {folder.path}/device.crt"
    folder.run(FIRST, device)
    service.log.wait_for(MANAGER, "Cloud config successfully retrieved. Creating SsoClient", seconds=45)
    assert service.api.token_text() == "access/1"
