"""The token request byte for byte, the cache by scope, renewal, and every answer that gives no token."""

import json
import time

import pytest

from support.curl_text import COULD_NOT_CONNECT, GOT_NOTHING, PARTIAL_FILE, RECEIVE_ERROR, curl_text
from support.exchanges import TOKEN_REFUSED, token_request
from support.fake_cloud import TOKEN_PATH, WELL_KNOWN_PATH
from support.http_server import Raw, Reply, redirect
from support.log import LEVELS, error
from support.texts import (ACCESS_TOKEN, API, CLIENT, NO_EXPIRY, NOT_VALID, TOKEN_FOUND, asking_token,
                           expires, request_received, token_answer, token_failed, token_sent)
from support.waiting import MARGIN_SECONDS, wait_until


@pytest.fixture(scope="module", params=LEVELS)
def shared(request, module_world):
    """A service at each level that knows its token endpoint, and its cloud."""
    cloud = module_world.new_cloud()
    service = module_world.start_ready(cloud, request.param)
    service.api.token_text("first")
    return service, cloud


@pytest.fixture
def ready(world, cloud):
    return world.start_ready(cloud)


# --- the request

def test_request_is_exactly_this(ready, cloud):
    ready.api.token_text("device")
    request, = cloud.requests(TOKEN_PATH)
    assert (request.method, request.target, request.version) == ("POST", "/token", "HTTP/1.1")
    assert request.headers == (("Host", cloud.url.removeprefix("http://")),
                               ("Content-Type", "application/x-www-form-urlencoded"), ("Accept", "application/json"),
                               ("Content-Length", str(len(request.body))))
    assert request.body.decode() == (
        "grant_type=client_credentials&scope=device"
        "&client_assertion_type=urn:ietf:params:oauth:client-assertion-type:jwt-bearer"
        f"&client_assertion={cloud.assertions()[0]}")


@pytest.mark.parametrize("scope, sent", [
    ("", ""), ("a b", "a b"), ("a&b=c", "a&b=c"), ("a+b%20c", "a+b%20c"), ("caf\u00e9 \u20ac", "caf\u00e9 \u20ac"),
    ('quote \\" and \\\\', 'quote " and \\'), ("line\\nend", "line\nend"), ("x\\u0041y", "xy"), ("%s%n", "%s%n"),
    ("/", "/"), ("x" * 5000, "x" * 5000),
], ids=["empty", "blank", "ampersand", "plus", "UTF-8", "quote", "line end", "dropped escape", "format", "slash",
        "long"])
def test_scope_goes_into_the_form_as_it_is(ready, cloud, scope, sent):
    since = ready.log.mark()
    assert ready.api.exchange(token_request(scope)) == b'{"status":"ok","token":"access\\/1"}'
    request, = cloud.requests(TOKEN_PATH)
    prefix = b"grant_type=client_credentials&scope=" + sent.encode() + b"&client_assertion_type="
    assert request.body.startswith(prefix)
    assert (CLIENT, f"Scope: {sent}") in ready.log.pairs(since)


def test_success_is_logged_in_order(shared):
    service, cloud = shared
    body = '{"access_token":"a/b","expires_in":3600}'
    cloud.script(TOKEN_PATH, Reply(200, body))
    since = service.log.mark()
    reply = service.api.exchange(token_request("another"))
    service.expect_log([*request_received(token_request("another")), *asking_token("another"), *token_answer(200, body),
                        TOKEN_FOUND, expires(3600), token_sent(reply.decode())], since)


# --- the cache

def test_second_request_comes_from_the_cache_without_a_log_line(shared):
    service, cloud = shared
    cloud.unscript()
    first = service.api.exchange(token_request("cached"))
    since, count = service.log.mark(), len(cloud.requests())
    assert service.api.exchange(token_request("cached")) == first
    assert len(cloud.requests()) == count
    service.expect_log([*request_received(token_request("cached")), token_sent(first.decode())], since)


def test_each_scope_has_its_own_token(ready, cloud):
    scopes = ["a", "b", "", "A", "a b", "a "]
    first = [ready.api.token_text(scope) for scope in scopes]
    assert first == [f"access/{number + 1}" for number in range(len(scopes))]
    assert [ready.api.token_text(scope) for scope in scopes] == first
    assert len(cloud.requests(TOKEN_PATH)) == len(scopes)


@pytest.mark.parametrize("expires_in", ["3600", "2147483647", "3600.9", "21", "1000000000"])
def test_long_enough_lifetime_is_kept(ready, cloud, expires_in):
    cloud.script(TOKEN_PATH, Reply(200, '{"access_token":"kept","expires_in":%s}' % expires_in))
    since = ready.log.mark()
    assert ready.api.token_text() == "kept"
    assert (ACCESS_TOKEN, f"Access token expires in {int(float(expires_in))} seconds") in ready.log.pairs(since)
    if expires_in != "21":
        assert ready.api.token_text() == "kept" and len(cloud.requests(TOKEN_PATH)) == 1


@pytest.mark.parametrize("lifetime", [21, 22])
def test_token_is_renewed_when_fewer_than_20_seconds_are_left(ready, cloud, lifetime):
    cloud.expires_in = lifetime
    began = time.time()
    assert ready.api.token_text() == "access/1"
    answered = time.time()
    wait_until(lambda: ready.api.token_text() == "access/2", "a renewed token")
    renewed = time.time()
    # Whole seconds are compared: the token lasts until its second, and the seconds over 20, have passed.
    assert int(renewed) - int(began) > lifetime - 20
    assert renewed - answered < lifetime - 20 + MARGIN_SECONDS
    one, other = cloud.assertions()
    assert one != other
    assert len(cloud.requests(WELL_KNOWN_PATH)) == 1


def test_renewal_of_one_scope_leaves_the_others(ready, cloud):
    assert ready.api.token_text("long") == "access/1"
    cloud.expires_in = 21
    assert ready.api.token_text("short") == "access/2"
    wait_until(lambda: ready.api.token_text("short") != "access/2", "a renewed token")
    assert ready.api.token_text("long") == "access/1"


def test_failure_for_one_scope_leaves_the_others(ready, cloud):
    assert ready.api.token_text("good") == "access/1"
    cloud.script(TOKEN_PATH, Reply(401, "no"))
    assert ready.api.exchange(token_request("bad")) == TOKEN_REFUSED
    assert ready.api.token_text("good") == "access/1"
    cloud.unscript()
    assert ready.api.token_text("bad") == "access/2"


# --- answers without a token

GOOD = '"access_token":"secret"'


def bad_answers():
    """(name, status, body, lines after the answer)"""
    def no_token(body):
        return error(ACCESS_TOKEN, f"No access_token found in {body}")

    def unreadable(body, reason):
        return error(ACCESS_TOKEN, f"Error processing toke json: {body} Error:{reason}")

    def without_token(name, body):
        return name, 200, body, [no_token(body), expires(3600), NOT_VALID]

    def without_expiry(name, body):
        return name, 200, body, [TOKEN_FOUND, NO_EXPIRY, NOT_VALID]

    def too_short(text, number):
        return (f"expires_in {text}", 200, f'{{{GOOD},"expires_in":{text}}}',
                [TOKEN_FOUND, expires(number), NOT_VALID])

    def broken(name, body, reason, *before, status=200):
        return name, status, body, [*before, unreadable(body, reason), NOT_VALID]

    not_an_object = "Input is not a valid object"
    neither = [(name, 200, body, [no_token(body), NO_EXPIRY, NOT_VALID])
               for name, body in (("empty object", "{}"), ("array", "[1]"), ("error", '{"error":"invalid_client"}'))]
    return [
        *neither,
        without_token("no token", '{"expires_in":3600}'),
        without_token("token a number", '{"access_token":5,"expires_in":3600}'),
        without_token("token null", '{"access_token":null,"expires_in":3600}'),
        without_token("token an object", '{"access_token":{"a":"b"},"expires_in":3600}'),
        without_token("other capitals", '{"Access_token":"secret","expires_in":3600}'),
        ("token empty", 200, '{"access_token":"","expires_in":3600}', [TOKEN_FOUND, expires(3600), NOT_VALID]),
        without_expiry("no expiry", f"{{{GOOD}}}"),
        *(without_expiry(f"expires_in {text}", f'{{{GOOD},"expires_in":{text}}}')
          for text in ('"3600"', "null", "true", "[3600]", "{}")),
        *(too_short(text, number) for text, number in [
            ("10", 10), ("19", 19), ("0", 0), ("-0", 0), ("-1", -1), ("-3600", -3600), ("19.99", 19), ("3.6e3", 3),
            ("1E9", 1), ("-2147483648", -2147483648)]),
        *(broken(f"expires_in {text}", f'{{{GOOD},"expires_in":{text}}}', "stoi", TOKEN_FOUND)
          for text in ("2147483648", "99999999999999999999", "-2147483649")),
        broken("empty", "", not_an_object),
        broken("no content", "", not_an_object, status=204),
        broken("text", "hello %s%n", not_an_object),
        broken("cut off", f"{{{GOOD}", not_an_object),
        broken("ends after colon", f'{{{GOOD},"expires_in":', "Input was only whitespace"),
        broken("two tokens", f'{{{GOOD},{GOOD},"expires_in":3600}}', "Key conflict"),
        broken("empty name", f'{{"":1,{GOOD},"expires_in":3600}}', "Missing key"),
        broken("escaped slash", '{"access_token":"a\\/b","expires_in":3600}', not_an_object),
        broken("million brackets", "[" * 1000000, not_an_object),
        *((f"status {status}", status, f'{{{GOOD},"expires_in":3600}}', [])
          for status in (300, 304, 400, 401, 403, 404, 429, 500, 503)),
    ]


@pytest.mark.parametrize("status, body, lines", [pytest.param(*row[1:], id=row[0]) for row in bad_answers()])
def test_answer_without_a_usable_token_is_refused(shared, status, body, lines):
    service, cloud = shared
    sent = "" if status in (204, 304) else body
    cloud.script(TOKEN_PATH, Reply(status, sent))
    since, count = service.log.mark(), len(cloud.requests(TOKEN_PATH))
    assert service.api.exchange(token_request("bad")) == TOKEN_REFUSED
    service.expect_log([*request_received(token_request("bad")), *asking_token("bad"), *token_answer(status, sent),
                        *lines, token_failed()], since)
    assert len(cloud.requests(TOKEN_PATH)) == count + 1


@pytest.mark.parametrize("status", [301, 302, 303, 307, 308])
def test_redirect_of_the_token_request_is_not_followed(shared, status):
    service, cloud = shared
    cloud.script(TOKEN_PATH, redirect(cloud.url + "/elsewhere", status))
    since = service.log.mark()
    assert service.api.exchange(token_request("bad")) == TOKEN_REFUSED
    service.expect_log([*asking_token("bad"), *token_answer(status, "")], since, without=API)
    assert not cloud.requests("/elsewhere")


TRANSFER_FAULTS = [
    ("closed at once", Raw(b""), GOT_NOTHING),
    ("body cut off", Raw(b"HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n{}"), PARTIAL_FILE),
    ("reset inside the body", Raw(b"HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n{", "reset"), RECEIVE_ERROR),
]


@pytest.mark.parametrize("reply, code", [pytest.param(*row[1:], id=row[0]) for row in TRANSFER_FAULTS])
def test_transfer_failure_is_refused(shared, reply, code):
    service, cloud = shared
    cloud.script(TOKEN_PATH, reply)
    since = service.log.mark()
    assert service.api.exchange(token_request("bad")) == TOKEN_REFUSED
    service.expect_log([*request_received(token_request("bad")), *asking_token("bad"),
                        error(CLIENT, f"curl_easy_perform() failed: {curl_text(code)}"), token_failed()], since)


@pytest.mark.parametrize("endpoint", ["http://127.0.0.1:{}/token", "127.0.0.1:{}"])
def test_unreachable_token_endpoint_is_refused(world, cloud, endpoint):
    cloud.script(WELL_KNOWN_PATH, Reply(200, {"token_endpoint": endpoint.format(world.new_port())}))
    service = world.start_ready(cloud)
    assert service.api.exchange(token_request("device")) == TOKEN_REFUSED
    failed = f"curl_easy_perform() failed: {curl_text(COULD_NOT_CONNECT)}"
    assert service.log.pairs(without=API)[-1] == (CLIENT, failed)


def test_every_attempt_has_a_new_assertion(ready, cloud):
    cloud.script(TOKEN_PATH, Reply(500))
    for _ in range(5):
        assert ready.api.exchange(token_request("device")) == TOKEN_REFUSED
    assert len(set(cloud.assertions())) == 5


@pytest.mark.parametrize("token", ["a/b", "x" * 20000, "caf\u00e9", 'quote " and \\ and \t', "%s%n"],
                         ids=["slash", "long", "UTF-8", "control", "format"])
def test_token_text_reaches_the_client_unchanged(ready, cloud, token):
    body = json.dumps({"access_token": token, "expires_in": 3600}, ensure_ascii=False)
    cloud.script(TOKEN_PATH, Reply(200, body))
    assert ready.api.token() == {"status": "ok", "token": token}


def test_other_members_of_the_answer_are_ignored(ready, cloud):
    body = {"token_type": "Bearer", "refresh_token": "no", "scope": ["x"], "access_token": "yes", "expires_in": 3600,
            "more": {"expires_in": 1, "access_token": 2}}
    cloud.script(TOKEN_PATH, Reply(200, body))
    assert ready.api.token_text() == "yes"


def test_no_descriptor_stays_open_after_failed_requests(ready, cloud):
    ready.api.token_text("first")
    before = len(ready.open_descriptors())
    for reply in (Reply(500), Raw(b""), Raw(b"HTTP/1.1 200 OK\r\n", "reset"), Reply(200, b"hello"), redirect("/x")):
        cloud.script(TOKEN_PATH, reply)
        for _ in range(4):
            assert ready.api.exchange(token_request("bad")) == TOKEN_REFUSED
    wait_until(lambda: len(ready.open_descriptors()) == before, lambda: str(ready.open_descriptors()))
