"""Where the device's private key is in the running service: once, in the provider's cache, and nowhere else. And what
others on the device could see of what the service knows."""

import re
import signal
import stat
import subprocess
import sys
from pathlib import Path

import pytest
from cryptography.hazmat.primitives.serialization import Encoding, NoEncryption, PrivateFormat

from support.configuration import orvex_provider
from support.fake_cloud import TOKEN_PATH, data_body
from support.fake_key_service import CERTIFICATE, PRIVATE_KEY, Answer, framed
from support.framing import frame
from support.http_server import Reply
from support.memory import forms_of_key, traces
from support.texts import MANAGER, NO_ID, pair_kept
from support.waiting import wait_until

HERE = Path(__file__).resolve().parent
TOKEN_FAILED = {"status": "error", "message": "std::exception"}


@pytest.fixture(autouse=True)
def plain_build(executable):
    """A sanitizer keeps copies of its own of what it watches over."""
    if re.search(rb"__[at]san_init", Path(executable).read_bytes()):
        pytest.skip("the memory of a sanitizer build is not the service's alone")


@pytest.fixture(scope="session")
def keep_freed(tmp_path_factory):
    library = tmp_path_factory.mktemp("keep-freed") / "keep_freed.so"
    subprocess.run(["cc", "-O1", "-fno-builtin", "-shared", "-fPIC", HERE / "keep_freed.c", "-o", library], check=True)
    return {"LD_PRELOAD": str(library)}


@pytest.fixture(scope="session")
def bound(executable):
    """The dynamic linker saves registers, with what was copied last, when it binds a function at its first use. A
    release has the unwinder of its own; a debug build gets a shared one that the first exception binds."""
    return {"LD_BIND_NOW": "1"} if b"libstdc++.so" in Path(executable).read_bytes() else {}


@pytest.fixture(params=["freed memory is used again", "freed memory stays"])
def environment(request, keep_freed, bound):
    """With the first, the memory is what a device's is; with the second, chance hides nothing."""
    return {**bound, **(keep_freed if request.param.endswith("stays") else {})}


class Files:
    def __init__(self, world):
        self._folder = world.new_folder("keys")
        self.document = {"type": "file", "key_path": str(self._folder / "device.key"),
                         "certificate_path": str(self._folder / "device.crt")}

    def have(self, key, certificate):
        (self._folder / "device.key").write_bytes(key)
        (self._folder / "device.crt").write_bytes(certificate)


class KeyService:
    def __init__(self, world):
        self.service = world.new_key_service()
        self.document = orvex_provider(self.service.port)

    def have(self, key, certificate):
        self.service.script(PRIVATE_KEY, framed(key))
        self.service.script(CERTIFICATE, framed(certificate))


@pytest.fixture(params=[Files, KeyService], ids=["files", "key-service"])
def provider(request, world):
    """Has the device's key and certificate until told otherwise."""
    result = request.param(world)
    result.have(world.device.key_pem, world.device.certificate_pem)
    return result


def expect_text_alone(service, pem, times=1):
    """Of the key there is its text, whole, and once if it is not in the certificate's text as well."""
    forms = forms_of_key(pem)
    found = traces(service.process.pid, forms)
    expected = [("text", len(forms["text"]))] * times
    assert [(trace.form, trace.length) for trace in found] == expected, [*map(str, found)]


def expect_nothing(service, pem):
    found = traces(service.process.pid, forms_of_key(pem))
    assert not found, [*map(str, found)]


def start(world, cloud, environment, provider):
    return world.start(world.document(cloud.discovery_url, provider.document), environment=environment)


def again(service):
    """Another discovery."""
    since = service.log.mark()
    assert service.api.request("reset")["status"] == "ok"
    service.wait_ready(since)


# --- the private key

def test_the_search_finds_every_form(device):
    """In a process that has the key's text and structure, and the key in OpenSSL."""
    program = ("import signal, sys; from cryptography.hazmat.primitives.serialization import *\n"
               "text = sys.stdin.buffer.read(); key = load_pem_private_key(text, None)\n"
               "structure = key.private_bytes(Encoding.DER, PrivateFormat.PKCS8, NoEncryption())\n"
               "print(flush=True); signal.pause()")
    with subprocess.Popen([sys.executable, "-c", program], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as process:
        try:
            process.stdin.write(device.key_pem)
            process.stdin.close()
            assert process.stdout.readline() == b"\n"
            forms = forms_of_key(device.key_pem)
            whole = {trace.form for trace in traces(process.pid, forms) if trace.length == len(forms[trace.form])}
            assert whole == forms.keys()
        finally:
            process.kill()


def test_only_the_providers_cache_has_the_key(world, cloud, environment, provider):
    service = start(world, cloud, environment, provider).wait_ready()
    expect_text_alone(service, world.device.key_pem)
    for scope in ("one", "two"):
        service.api.token_text(scope)
        expect_text_alone(service, world.device.key_pem)
    again(service)
    service.api.token_text("three")
    expect_text_alone(service, world.device.key_pem)


def test_after_a_discovery_of_many_blocks(world, cloud, environment, provider):
    cloud.script(cloud.discovery_path, Reply(200, cloud.discovery_body({**cloud.payload(), "more": "x" * 4000})))
    service = start(world, cloud, environment, provider).wait_ready()
    expect_text_alone(service, world.device.key_pem)


def test_after_failed_token_requests(world, cloud, environment, provider):
    service = start(world, cloud, environment, provider).wait_ready()
    cloud.script(TOKEN_PATH, Reply(500), Reply(200, "{"), Reply(200, {"access_token": ""}), None)
    for _ in range(3):
        assert service.api.token() == TOKEN_FAILED
    service.api.token_text()
    expect_text_alone(service, world.device.key_pem)


@pytest.mark.parametrize("ciphertext", [
    pytest.param(lambda device, other: device.encrypt(b"x" * 300)[:-1], id="a-block-cut-short"),
    pytest.param(lambda device, other: device.encrypt(b"x" * 214) + other.encrypt(b"x"), id="a-block-for-another-key"),
    pytest.param(lambda device, other: device.encrypt(b"not JSON"), id="no-document"),
])
def test_after_a_discovery_that_failed(world, cloud, other_device, environment, provider, ciphertext):
    cloud.script(cloud.discovery_path, Reply(200, data_body(ciphertext(world.device, other_device))))
    service = start(world, cloud, environment, provider)
    service.wait_failed()
    expect_text_alone(service, world.device.key_pem)


def test_a_key_in_the_older_format(world, cloud, environment, provider):
    pem = world.device.key.private_bytes(Encoding.PEM, PrivateFormat.TraditionalOpenSSL, NoEncryption())
    provider.have(pem, world.device.certificate_pem)
    service = start(world, cloud, environment, provider).wait_ready()
    service.api.token_text()
    expect_text_alone(service, pem)


@pytest.mark.parametrize("answer", [
    pytest.param(lambda pem: Answer((frame(pem)[:-40],), "close"), id="closed-within-the-key"),
    pytest.param(lambda pem: Answer((frame(pem)[:-40],), "reset"), id="reset-within-the-key"),
])
def test_nothing_is_left_of_a_key_that_did_not_arrive(world, cloud, environment, answer):
    provider = KeyService(world)
    provider.service.script(PRIVATE_KEY, answer(world.device.key_pem))
    service = start(world, cloud, environment, provider)
    service.wait_failed()
    expect_nothing(service, world.device.key_pem)


def test_a_key_that_comes_with_more_than_itself(world, cloud, environment):
    """Behind a NUL, and behind the frame: neither is kept."""
    pem = world.device.key_pem
    provider = KeyService(world)
    provider.service.script(PRIVATE_KEY, Answer((frame(pem + b"\0" + pem) + pem,)))
    service = start(world, cloud, environment, provider).wait_ready()
    service.api.token_text()
    expect_text_alone(service, pem)


def test_a_key_with_a_long_text_behind_it(world, cloud, environment):
    """Which is read in pieces."""
    pem = world.device.key_pem
    provider = KeyService(world)
    provider.service.script(PRIVATE_KEY, framed(pem + b"#" * 200000))
    service = start(world, cloud, environment, provider).wait_ready()
    service.api.token_text()
    expect_text_alone(service, pem)


# --- a reload

def read_again(service):
    """A token with the new key and certificate."""
    since = service.log.mark()
    service.send_signal(signal.SIGHUP)
    service.wait_ready(since)
    service.api.token_text()


def test_a_certificates_text_that_holds_the_key_as_well(world, cloud, environment, provider, other_device):
    def have(device):
        both = device.key_pem + device.certificate_pem
        provider.have(both, both)
    have(world.device)
    service = start(world, cloud, environment, provider).wait_ready()
    service.api.token_text()
    expect_text_alone(service, world.device.key_pem, times=2)
    have(other_device)
    cloud.know(other_device)
    read_again(service)
    expect_nothing(service, world.device.key_pem)
    expect_text_alone(service, other_device.key_pem, times=2)


def test_nothing_is_left_of_a_key_that_was_replaced(world, cloud, environment, provider, other_device):
    service = start(world, cloud, environment, provider).wait_ready()
    service.api.token_text()
    provider.have(other_device.key_pem, other_device.certificate_pem)
    cloud.know(other_device)
    read_again(service)
    expect_nothing(service, world.device.key_pem)
    expect_text_alone(service, other_device.key_pem)


def test_nothing_is_left_of_a_key_that_was_refused(world, cloud, environment, provider, other_device):
    """It comes with something that is no certificate, so the old pair stays."""
    service = start(world, cloud, environment, provider).wait_ready()
    provider.have(other_device.key_pem, b"no certificate")
    service.send_signal(signal.SIGHUP)
    service.log.wait_for(MANAGER, pair_kept(NO_ID).text)
    expect_nothing(service, other_device.key_pem)
    expect_text_alone(service, world.device.key_pem)


# --- what others can see

def test_the_log_arguments_and_environment_show_no_key(world, cloud, provider):
    service = start(world, cloud, {}, provider).wait_ready()
    service.api.token_text()
    seen = {name: Path(f"/proc/{service.process.pid}/{name}").read_bytes() for name in ("cmdline", "environ")}
    for place, text in {**seen, "log": service.log.raw()}.items():
        assert text, place
        lines = world.device.key_pem.splitlines()
        assert not [line for line in lines if line in text], place


@pytest.mark.parametrize("mask", ["000", "022", "077"])
def test_log_and_backup_are_the_services_alone(world, cloud, mask):
    folder = world.new_folder("files")
    document = world.document(cloud.discovery_url, cache_folder=folder, log_path=folder / "log-")
    service = world.start(document, wrapper=("/bin/sh", "-c", f'umask {mask}; exec "$@"', "sh"))
    backup = folder / f"{world.device.id}.cfg"
    wait_until(lambda: backup.exists() and backup.read_bytes(), "a backup file")
    service.wait_listening()
    modes = {path.name: oct(stat.S_IMODE(path.stat().st_mode)) for path in folder.iterdir()}
    assert len(modes) == 2 and set(modes.values()) == {"0o600"}, modes
