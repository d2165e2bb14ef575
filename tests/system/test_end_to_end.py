"""The service against a real identity provider, which verifies every assertion by itself."""

import contextlib
import time

import pytest

from support.assertion import decode, signature_holds
from support.configuration import file_provider, orvex_provider
from support.node_cloud import MadeDevice, NodeCloud
from support.texts import CLIENT, DISCOVERY, GENERIC_FAILURE
from support.waiting import wait_until

GET_DEVICE = "discovery GET /devices/device-0001 200"
GET_CONFIGURATION = "idp GET /.well-known/openid-configuration 200"
TOKEN_GRANTED = "idp POST /token 200"
TOKEN_REFUSED = "idp POST /token 400"


@pytest.fixture(scope="module")
def made_device(tmp_path_factory):
    return MadeDevice(tmp_path_factory.mktemp("made-device"))


@contextlib.contextmanager
def running(device, folder, *options):
    cloud = NodeCloud(device, folder, *options)
    try:
        yield cloud
    finally:
        cloud.kill()


@pytest.fixture(scope="module")
def real_cloud(made_device, tmp_path_factory):
    with running(made_device, tmp_path_factory.mktemp("cloud"), "--scope", "telemetry", "--scope", "update") as cloud:
        yield cloud


@pytest.fixture
def service(world, real_cloud, made_device):
    return world.start(world.document(real_cloud.discovery_url, file_provider(made_device))).wait_ready()


def counts(cloud, *lines):
    return [cloud.count(line) for line in lines]


def test_token_is_a_signed_one_for_this_device_and_scope(service, real_cloud):
    token = service.api.token_text("telemetry")
    header, claims = decode(token)
    assert header["alg"] == "RS256"
    assert signature_holds(token, real_cloud.public_keys()[header["kid"]])
    assert claims["iss"] == real_cloud.issuer
    assert claims["client_id"] == "device-0001" and claims["sub"] == "device-0001"
    assert claims["scope"] == "telemetry"
    assert claims["exp"] - claims["iat"] == 3600
    assert abs(claims["iat"] - time.time()) < 30


def test_second_request_comes_from_the_cache(service, real_cloud):
    configurations, granted = counts(real_cloud, GET_CONFIGURATION, TOKEN_GRANTED)
    first = service.api.token_text("telemetry")
    assert counts(real_cloud, GET_CONFIGURATION, TOKEN_GRANTED) == [configurations + 1, granted + 1]
    assert service.api.token_text("telemetry") == first
    assert counts(real_cloud, GET_CONFIGURATION, TOKEN_GRANTED) == [configurations + 1, granted + 1]


def test_another_scope_gets_a_token_of_its_own(service, real_cloud):
    granted = real_cloud.count(TOKEN_GRANTED)
    tokens = {scope: service.api.token_text(scope) for scope in ("telemetry", "update")}
    assert {scope: decode(token)[1]["scope"] for scope, token in tokens.items()} == {
        "telemetry": "telemetry", "update": "update"}
    assert real_cloud.count(TOKEN_GRANTED) == granted + 2


def test_unknown_scope_is_refused_and_the_known_one_stays(service, real_cloud):
    token = service.api.token_text("telemetry")
    refused, since = real_cloud.count(TOKEN_REFUSED), service.log.mark()
    assert service.api.token("nonsense") == {"status": "error", "message": GENERIC_FAILURE}
    assert real_cloud.count(TOKEN_REFUSED) == refused + 1
    assert service.log.pairs(since, only=CLIENT)[-1] == (CLIENT, "Curl response code: 400")
    assert service.api.token_text("telemetry") == token


def test_discovery_data_is_what_the_cloud_encrypted(service, real_cloud):
    data = service.api.request("data")["discovery_data"]
    assert data["config"]["endpoints"]["veloIdConfiguration"] == real_cloud.well_known_url
    assert (DISCOVERY, f"SSO well known endpoint found: {real_cloud.well_known_url}") in service.log.pairs()


def test_certificate_id_is_the_device_id(service):
    assert service.api.request("certificate_id") == {"status": "ok", "certificate_id": "device-0001"}


def test_reset_asks_the_cloud_for_everything_again(service, real_cloud):
    lines = (GET_DEVICE, GET_CONFIGURATION, TOKEN_GRANTED)
    token = service.api.token_text("telemetry")
    before, since = counts(real_cloud, *lines), service.log.mark()
    assert service.api.request("reset") == {"status": "ok"}
    service.wait_ready(since)
    assert service.api.token_text("telemetry") != token
    assert counts(real_cloud, *lines) == [count + 1 for count in before]


def test_key_service_gives_the_same_identity(world, real_cloud, made_device):
    before = counts(real_cloud, "key-service certificate ok", "key-service privatekey ok")
    provider = orvex_provider(real_cloud.key_service_port)
    service = world.start(world.document(real_cloud.discovery_url, provider)).wait_ready()
    assert decode(service.api.token_text("update"))[1]["client_id"] == "device-0001"
    assert counts(real_cloud, "key-service certificate ok", "key-service privatekey ok") == [
        count + 1 for count in before]


def test_key_that_the_cloud_does_not_know_cannot_read_the_discovery_data(world, real_cloud, tmp_path):
    stranger = MadeDevice(tmp_path / "stranger")
    service = world.start(world.document(real_cloud.discovery_url, file_provider(stranger)))
    assert "RSA_private_decrypt() FAILED" in service.wait_failed()


def test_device_that_the_cloud_does_not_know_is_not_found(world, real_cloud, tmp_path):
    stranger = MadeDevice(tmp_path / "stranger", "device-0002")
    service = world.start(world.document(real_cloud.discovery_url, file_provider(stranger)))
    not_found = f"Couldn't retrieve discovery data from {real_cloud.discovery_url}. Curl returned: 404"
    assert not_found in service.wait_failed()


def test_short_lived_token_is_renewed(world, made_device):
    with running(made_device, world.new_folder("cloud"), "--token-lifetime", "21") as cloud:
        service = world.start(world.document(cloud.discovery_url, file_provider(made_device))).wait_ready()
        first = service.api.token_text("telemetry")
        second = wait_until(lambda: _other_than(first, service), "a renewed token")
        one, other = decode(first)[1], decode(second)[1]
        assert one["exp"] - one["iat"] == other["exp"] - other["iat"] == 21
        assert 1 <= other["iat"] - one["iat"] <= 4
        assert counts(cloud, GET_CONFIGURATION, TOKEN_GRANTED) == [1, 2]
        service.stop()


def _other_than(token, service):
    text = service.api.token_text("telemetry")
    return text if text != token else None


def test_lifetime_below_the_margin_is_refused(world, made_device):
    with running(made_device, world.new_folder("cloud"), "--token-lifetime", "19") as cloud:
        service = world.start(world.document(cloud.discovery_url, file_provider(made_device))).wait_ready()
        assert service.api.token("telemetry") == {"status": "error", "message": GENERIC_FAILURE}
        assert cloud.count(TOKEN_GRANTED) == 1
        service.stop()


def test_cloud_that_goes_and_comes_back(world, made_device):
    """Without it cached tokens are still given; a restarted service lives on its backup file until it is back."""
    cache = world.new_folder("cache")
    with running(made_device, world.new_folder("cloud-1")) as cloud:
        document = world.document(cloud.discovery_url, file_provider(made_device), cache_folder=cache)
        service = world.start(document).wait_ready()
        token = service.api.token_text("telemetry")
        cloud.stop()
        assert service.api.token_text("telemetry") == token
        assert service.api.token("update")["status"] == "error"
        service.stop()
    service = world.start(document).wait_ready()
    assert service.api.request("data")["status"] == "ok"
    assert service.api.token("telemetry")["status"] == "error"
    with running(made_device, world.new_folder("cloud-2"), *cloud.ports()) as cloud:
        assert service.api.token_text("telemetry") != token
        service.stop()
        cloud.stop()
