"""The command sso-client against the real service: what it asks, prints and is refused."""

import pytest

from support.client_command import Outcome, failure, success
from support.exchanges import ID_REQUEST, ID_SENT
from support.fake_cloud import TOKEN_PATH, data_body
from support.http_server import Reply
from support.texts import GENERIC_FAILURE, request_received

SILENT_SUCCESS = Outcome(0, "", "")
DATA_REPLY_BEGIN = b'{"status":"ok","discovery_data":'


@pytest.fixture
def port(service):
    return service.api.port


# --- the five requests

def test_token(client, service, port):
    token = service.api.token_text("telemetry")
    assert client.ask(port, "token", "telemetry") == success(token)
    assert client.ask(port, "token", "telemetry", "--json") == success('{"status":"ok","token":"%s"}' % token)


def test_certificate_id(client, port):
    assert client.ask(port, "certificate-id") == success("device-0001")
    assert client.ask(port, "certificate-id", "--json") == success('{"status":"ok","certificate_id":"device-0001"}')


def test_ping(client, port):
    assert client.ask(port, "ping") == success("ready")
    assert client.ask(port, "ping", "--json") == success('{"status":"ok","certificate_id":"device-0001"}')


def test_data(client, service, port):
    data = service.api.exchange('{"request":"data"}').decode().removeprefix(DATA_REPLY_BEGIN.decode())[:-1]
    assert data.startswith('{"config":{"endpoints":')
    assert client.ask(port, "data") == success(data)
    assert client.ask(port, "data", "--json") == success('{"status":"ok","discovery_data":%s}' % data)


def test_data_is_printed_byte_by_byte(client, world, cloud):
    """Escapes, bytes that are not UTF-8, control characters, long numbers: nothing is read and written anew."""
    rest = b'"a":"\\u00e9\\"\\\\\\n","b":"caf\xc3\xa9 \xff\x01\x7f","c":[1.50,-0e+10,12345678901234567890,{},[],null]'
    payload = b'{"config":{"endpoints":{"veloIdConfiguration":"%s"}},%s}' % (cloud.well_known_url.encode(), rest)
    cloud.script(cloud.discovery_path, Reply(200, data_body(cloud.device.encrypt(payload))))
    service = world.start_ready(cloud)
    reply = service.api.exchange('{"request":"data"}')
    assert rest in reply
    assert client.ask(service.api.port, "data") == success(
        reply.removeprefix(DATA_REPLY_BEGIN)[:-1].decode(errors="surrogateescape"))


@pytest.mark.parametrize("options, expected", [((), SILENT_SUCCESS), (("--json",), success('{"status":"ok"}'))])
def test_reset_has_the_service_ask_the_cloud_again(client, world, cloud, options, expected):
    service = world.start_ready(cloud)
    assert service.api.token_text("a") == "access/1"
    since = service.log.mark()
    assert client.ask(service.api.port, "reset", *options) == expected
    service.wait_ready(since)
    assert len(cloud.requests(cloud.discovery_path)) == 2
    assert service.api.token_text("a") == "access/2"


def test_ping_changes_nothing(client, world, cloud):
    service = world.start_ready(cloud)
    token, asked, since = service.api.token_text("a"), len(cloud.requests()), service.log.mark()
    assert client.ask(service.api.port, "ping") == success("ready")
    service.expect_log([*request_received(ID_REQUEST.decode()), ID_SENT], since)
    assert service.api.token_text("a") == token
    assert len(cloud.requests()) == asked


# --- scopes

@pytest.mark.parametrize("scope", [
    "telemetry%20update", "two words", "a/b", 'quote " backslash \\ both \\"', "caf\u00e9 \u20ac", "\udcff\udc80",
    "%s%n", "=&+#", "s" * 4096, '"' * 4096,
], ids=lambda scope: repr(scope[:20]))
def test_scope_reaches_the_identity_provider_as_it_is(client, world, cloud, scope):
    service = world.start_ready(cloud)
    assert client.ask(service.api.port, "token", scope) == success("access/1")
    form = cloud.requests(TOKEN_PATH)[0].body
    assert b"&scope=" + scope.encode(errors="surrogateescape") + b"&client_assertion_type=" in form


@pytest.mark.parametrize("arguments", [("token", "--", "--json"), ("--", "token", "--json")])
def test_what_follows_two_hyphens_is_no_option(client, service, port, arguments):
    assert client.ask(port, *arguments) == success(service.api.token_text("--json"))


def test_single_hyphen_is_a_scope(client, service, port):
    assert client.ask(port, "token", "-") == success(service.api.token_text("-"))


# --- refusals

def test_refusal_by_the_identity_provider(client, world, cloud):
    service = world.start_ready(cloud)
    cloud.script(TOKEN_PATH, Reply(400))
    refused = failure(5, f"refused by the service: {GENERIC_FAILURE}")
    assert client.ask(service.api.port, "token", "nonsense") == refused
    assert client.ask(service.api.port, "token", "nonsense", "--json") == refused


def test_service_that_is_not_ready(client, world, cloud):
    cloud.script(cloud.discovery_path, Reply(404))
    service = world.start(world.document(cloud.discovery_url))
    reason = service.wait_failed()
    port = service.api.port
    failed = "Cloud discovery failed. "
    for request in (("data",), ("token", "a")):
        assert client.ask(port, *request) == failure(5, f"refused by the service: {failed}{reason}")
    assert client.ask(port, "certificate-id") == failure(
        5, f"refused by the service: {failed}System is not initialized{reason}")
    assert client.ask(port, "ping") == failure(
        5, f"the service answers, but is not ready: {failed}System is not initialized{reason}")
    assert client.ask(port, "reset") == SILENT_SUCCESS


def test_service_that_is_still_asking_the_cloud(client, world, cloud):
    gate = cloud.hold(cloud.discovery_path)
    service = world.start(world.document(cloud.discovery_url))
    gate.wait_arrived()
    service.wait_listening()
    assert client.ask(service.api.port, "ping") == failure(
        5, "the service answers, but is not ready: Cloud discovery failed. System is not initialized")
    gate.release()
    service.wait_ready()
    assert client.ask(service.api.port, "ping") == success("ready")


def test_waits_for_a_token_that_has_to_be_fetched(client, world, cloud):
    service = world.start_ready(cloud)
    gate = cloud.hold(TOKEN_PATH)
    port = service.api.port
    assert client.ask(port, "token", "a", "--timeout", "0.3") == failure(
        4, f"timed out: no reply from port {port} within 0.3 seconds")
    gate.release()
    assert client.ask(port, "token", "a") == success("access/1")


# --- in scripts

def test_token_in_a_variable(client, service, port):
    token = service.api.token_text("telemetry")
    assert client.in_bash('TOKEN=$(sso-client token telemetry) && printf "<%s>" "$TOKEN"', port) == Outcome(
        0, f"<{token}>", "")


def test_failure_stops_a_script(client, port):
    script = 'set -e; TOKEN=$(sso-client token ""); echo not reached'
    assert client.in_bash(script, port) == failure(2, "the scope is empty")
