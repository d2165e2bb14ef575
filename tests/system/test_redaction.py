"""log_redact_secrets: tokens, assertions and the bodies that carry them are in no log line, and every line stays."""

import json

import pytest

from support.configuration import REMOVED, changed
from support.curl_text import PARTIAL_FILE, RECEIVE_ERROR, curl_text
from support.exchanges import TOKEN_REFUSED, token_request
from support.fake_cloud import TOKEN_PATH
from support.http_server import Raw, Reply, redirect
from support.log import LEVELS, Log, error
from support.texts import (ACCESS_TOKEN, API, CLIENT, MANAGER, NO_EXPIRY, NOT_VALID, TOKEN_FOUND, asking_token,
                           configured, endpoint_found, expires, initialised, looked_up, looking_up, request_received,
                           token_answer, token_failed, token_sent)

KEY = "sso.log_redact_secrets"
REDACTED = "[redacted]"
SECRET = "ey-the-secret"  # a part of everything here that has to stay out of the log
GOOD = f'{{"access_token":"{SECRET}/token","refresh_token":"{SECRET}-refresh","expires_in":3600}}'
GOOD_REPLY = '{"status":"ok","token":"%s\\/token"}' % SECRET


class Echo:
    """A reply with the whole request in its body, the assertion included."""

    def __init__(self, cloud, status):
        self._cloud = cloud
        self._status = status

    def send(self, connection, closing):
        Reply(self._status, self._cloud.requests(TOKEN_PATH)[-1].raw).send(connection, closing)


def start(world, cloud, value, level="verbose"):
    return world.start(changed(world.document(cloud.discovery_url, level=level), KEY, value)).wait_ready()


@pytest.fixture(scope="module", params=LEVELS)
def shared(request, module_world):
    """A service that redacts at each level and knows its token endpoint, and its cloud."""
    cloud = module_world.new_cloud()
    service = start(module_world, cloud, True, request.param)
    service.api.token_text("first")
    return service, cloud


def expect_no_secret(service, cloud):
    """Neither is any part of an assertion in the log; its header alone is known to everybody."""
    written = service.log.raw() + service.stderr_path.read_bytes()
    parts = [part for assertion in cloud.assertions() for part in assertion.split(".")[1:]]
    assert parts
    for secret in [SECRET, "client_assertion", *parts]:
        assert secret.encode() not in written, secret


def unreadable(reason):
    return error(ACCESS_TOKEN, f"Error processing toke json: {REDACTED} Error:{reason}")


NO_TOKEN = error(ACCESS_TOKEN, f"No access_token found in {REDACTED}")


def refused():
    """(name, reply or its status and body, lines after the statuses)"""
    return [
        ("cut off", 200, GOOD[:-1], [unreadable("Input is not a valid object"), NOT_VALID]),
        ("ends after a colon", 200, f'{{"access_token":"{SECRET}","expires_in":',
         [unreadable("Input was only whitespace"), NOT_VALID]),
        ("bare token", 200, SECRET, [unreadable("Input is not a valid object"), NOT_VALID]),
        ("two tokens", 200, f'{{"access_token":"{SECRET}","access_token":"{SECRET}"}}',
         [unreadable("Key conflict"), NOT_VALID]),
        ("slash escaped", 200, f'{{"access_token":"{SECRET}\\/b","expires_in":3600}}',
         [unreadable("Input is not a valid object"), NOT_VALID]),
        ("lifetime too long", 200, f'{{"access_token":"{SECRET}","expires_in":99999999999}}',
         [TOKEN_FOUND, unreadable("stoi"), NOT_VALID]),
        ("token under another name", 200, f'{{"id_token":"{SECRET}","expires_in":3600}}',
         [NO_TOKEN, expires(3600), NOT_VALID]),
        ("token in a list", 200, f'{{"access_token":["{SECRET}"]}}', [NO_TOKEN, NO_EXPIRY, NOT_VALID]),
        ("no expiry", 200, f'{{"access_token":"{SECRET}"}}', [TOKEN_FOUND, NO_EXPIRY, NOT_VALID]),
        ("too short", 200, f'{{"access_token":"{SECRET}","expires_in":5}}', [TOKEN_FOUND, expires(5), NOT_VALID]),
        ("format characters", 200, f"%s%n{SECRET}%s", [unreadable("Input is not a valid object"), NOT_VALID]),
        ("nothing", 200, "", [unreadable("Input is not a valid object"), NOT_VALID]),
        *((f"status {status}", status, GOOD, []) for status in (300, 400, 401, 500, 503)),
    ]


def test_good_answer(shared):
    service, cloud = shared
    cloud.script(TOKEN_PATH, Reply(200, GOOD))
    since = service.log.mark()
    request = token_request("good")
    for _ in range(2):  # the second one comes from the cache
        assert service.api.exchange(request).decode() == GOOD_REPLY
    service.expect_log([*request_received(request), *asking_token("good"), *token_answer(200, REDACTED), TOKEN_FOUND,
                        expires(3600), token_sent(REDACTED), *request_received(request), token_sent(REDACTED)], since)
    expect_no_secret(service, cloud)


@pytest.mark.parametrize("status, body, lines", [pytest.param(*row[1:], id=row[0]) for row in refused()])
def test_answer_without_a_usable_token(shared, status, body, lines):
    service, cloud = shared
    cloud.script(TOKEN_PATH, Reply(status, body))
    since = service.log.mark()
    assert service.api.exchange(token_request("bad")) == TOKEN_REFUSED
    service.expect_log([*request_received(token_request("bad")), *asking_token("bad"), *token_answer(status, REDACTED),
                        *lines, token_failed()], since)
    expect_no_secret(service, cloud)


@pytest.mark.parametrize("status, lines", [
    (200, [unreadable("Input is not a valid object"), NOT_VALID]), (400, []), (500, [])])
def test_answer_with_the_request_in_it(shared, status, lines):
    service, cloud = shared
    cloud.script(TOKEN_PATH, Echo(cloud, status))
    since = service.log.mark()
    assert service.api.exchange(token_request("bad")) == TOKEN_REFUSED
    service.expect_log([*request_received(token_request("bad")), *asking_token("bad"), *token_answer(status, REDACTED),
                        *lines, token_failed()], since)
    expect_no_secret(service, cloud)


@pytest.mark.parametrize("reply, code", [
    (Raw(b"HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n" + GOOD.encode()), PARTIAL_FILE),
    (Raw(b"HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n" + GOOD.encode(), "reset"), RECEIVE_ERROR),
], ids=["cut off", "reset"])
def test_transfer_that_fails_inside_the_token(shared, reply, code):
    service, cloud = shared
    cloud.script(TOKEN_PATH, reply)
    since = service.log.mark()
    assert service.api.exchange(token_request("bad")) == TOKEN_REFUSED
    service.expect_log([*request_received(token_request("bad")), *asking_token("bad"),
                        error(CLIENT, f"curl_easy_perform() failed: {curl_text(code)}"), token_failed()], since)
    expect_no_secret(service, cloud)


def test_redirect_that_names_the_token(shared):
    service, cloud = shared
    cloud.script(TOKEN_PATH, redirect(f"{cloud.url}/elsewhere?token={SECRET}"))
    since = service.log.mark()
    assert service.api.exchange(token_request("bad")) == TOKEN_REFUSED
    service.expect_log([*request_received(token_request("bad")), *asking_token("bad"), *token_answer(302, REDACTED),
                        token_failed()], since)
    expect_no_secret(service, cloud)


def test_all_else_is_shown(world, cloud):
    """The OpenID configuration carries no secret, and the lines around the secrets are what they always are."""
    cloud.script(TOKEN_PATH, Reply(200, GOOD))
    service = start(world, cloud, True)
    service.expect_main_log([*configured(service), *initialised(cloud)])
    since = service.log.mark()
    assert service.api.exchange(token_request()).decode() == GOOD_REPLY
    body = json.dumps({"issuer": cloud.url, "token_endpoint": cloud.token_endpoint})
    service.expect_log([*request_received(token_request()), *looking_up(cloud.well_known_url), *looked_up(200, body),
                        endpoint_found(cloud.token_endpoint), *asking_token("device"), *token_answer(200, REDACTED),
                        TOKEN_FOUND, expires(3600), token_sent(REDACTED)], since)


def test_log_file_has_no_secret_either(world, cloud):
    """Over a reset and a stop, too."""
    cloud.script(TOKEN_PATH, Reply(200, GOOD), Echo(cloud, 500), Reply(200, GOOD))
    folder = world.new_folder("log")
    document = changed(world.document(cloud.discovery_url, log_path=folder / "sso"), KEY, True)
    service = world.start(document)
    service.wait_listening()
    service.log = Log(next(folder.iterdir()))
    service.wait_ready()
    for scope in ("a", "b", "c"):
        service.api.token(scope)
    since = service.log.mark()
    service.api.request("reset")
    service.wait_ready(since)
    assert service.api.token_text("a") == f"{SECRET}/token"
    service.stop()
    assert service.log.raw().count(REDACTED.encode()) == 7  # four answers, three replies
    expect_no_secret(service, cloud)


# --- the value

@pytest.mark.parametrize("level", LEVELS)
@pytest.mark.parametrize("value", [REMOVED, False], ids=["absent", "false"])
def test_without_it_the_log_is_what_it_was(world, cloud, value, level):
    document = world.document(cloud.discovery_url, level=level)
    service = world.start(document if value is REMOVED else changed(document, KEY, value)).wait_ready()
    service.expect_main_log([*configured(service), *initialised(cloud)])
    service.api.token("first")
    broken, nameless = GOOD[:-1], f'{{"id_token":"{SECRET}"}}'
    unread = error(ACCESS_TOKEN, f"Error processing toke json: {broken} Error:Input is not a valid object")
    missing = error(ACCESS_TOKEN, f"No access_token found in {nameless}")
    for status, body, lines in [
            (200, GOOD, [TOKEN_FOUND, expires(3600), token_sent(GOOD_REPLY)]),
            (200, broken, [unread, NOT_VALID, token_failed()]),
            (200, nameless, [missing, NO_EXPIRY, NOT_VALID, token_failed()]), (400, SECRET, [token_failed()])]:
        cloud.script(TOKEN_PATH, Reply(status, body))
        since = service.log.mark()
        scope = "good" if body == GOOD else "bad"
        service.api.exchange(token_request(scope))
        service.expect_log([*request_received(token_request(scope)), *asking_token(scope),
                            *token_answer(status, body), *lines], since)


def not_boolean(service):
    return error(MANAGER, f"Configuration file {service.configuration_path}: sso.log_redact_secrets is neither true "
                          "nor false. Secrets are kept out of the log")


@pytest.mark.parametrize("level", LEVELS)
@pytest.mark.parametrize("value", ["true", "false", "", 0, 1, None, [], [True], {}], ids=repr)
def test_value_that_is_not_boolean_is_an_error_and_redacts(world, cloud, value, level):
    cloud.script(TOKEN_PATH, Reply(200, GOOD))
    service = start(world, cloud, value, level)
    first, *others = configured(service)
    service.expect_main_log([first, not_boolean(service), *others, *initialised(cloud)])
    assert service.api.exchange(token_request()).decode() == GOOD_REPLY
    expect_no_secret(service, cloud)


@pytest.mark.parametrize("value", [REMOVED, False, True, "yes"], ids=["absent", "false", "true", "not boolean"])
def test_without_a_level(world, cloud, value):
    """The log shows level debug, whatever else is missing."""
    cloud.script(TOKEN_PATH, Reply(200, GOOD))
    document = changed(world.document(cloud.discovery_url), "sso.log_level", REMOVED)
    service = world.start(document if value is REMOVED else changed(document, KEY, value)).wait_ready()
    level = error(MANAGER, f"Configuration file {service.configuration_path} is missing sso.log_level")
    complaint = [not_boolean(service)] if value == "yes" else []
    service.expect_main_log([level, *complaint, *configured(service)[1:], *initialised(cloud)])
    since = service.log.mark()
    assert service.api.exchange(token_request()).decode() == GOOD_REPLY
    redacts = value in (True, "yes")
    body, reply = (REDACTED, REDACTED) if redacts else (GOOD, GOOD_REPLY)
    service.expect_log([*asking_token("device"), *token_answer(200, body), TOKEN_FOUND, expires(3600)],
                       service.log.pairs().index((CLIENT, "Requesting SSO access token.")), without=API)
    service.expect_log([*request_received(token_request()), token_sent(reply)], since, only=API)
    if redacts:
        expect_no_secret(service, cloud)


def test_service_that_cannot_start_says_so_with_its_secrets_kept(world):
    """The rejected configuration's lines are the usual ones behind the line about the value."""
    document = changed(changed(world.document("http://127.0.0.1:9/"), "sso.cloud_config", REMOVED), KEY, "yes")
    service = world.start(document)
    service.expect_exit(1)
    assert service.log.pairs()[1] == (MANAGER, not_boolean(service).text)
    assert service.log.pairs()[-1] == (MANAGER, "Key Certificate Provider does not exist. Terminating")
