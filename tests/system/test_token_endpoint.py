"""Looking up the token endpoint in the identity provider's OpenID configuration."""

import os

import pytest

from support.curl_text import (COULD_NOT_CONNECT, GOT_NOTHING, PARTIAL_FILE, RECEIVE_ERROR, TOO_MANY_REDIRECTS,
                               UNSUPPORTED_PROTOCOL, curl_text)
from support.exchanges import TOKEN_REFUSED, token_request
from support.fake_cloud import TOKEN_PATH, WELL_KNOWN_PATH
from support.http_server import Raw, Reply, redirect
from support.log import LEVELS, error
from support.texts import (API, CLIENT, NOT_VALID, endpoint_found, looked_up, looking_up,
                           request_received, token_failed)



@pytest.fixture(scope="module", params=LEVELS)
def shared(request, module_world):
    """A ready service whose lookups have all failed so far, at each level, and its cloud."""
    cloud = module_world.new_cloud()
    return module_world.start_ready(cloud, request.param), cloud


def expect_token_failure(service, lines):
    """One token request that logs these lines between its arrival and its refusal."""
    since = service.log.mark()
    assert service.api.exchange(token_request()) == TOKEN_REFUSED
    service.expect_log([*request_received(token_request()), *lines, token_failed()], since)


def test_lookup_is_a_plain_get_of_the_url_as_configured(world, cloud):
    cloud.well_known_in_payload = cloud.url + "/a/b?c=d"
    cloud.script("/a/b?c=d", Reply(200, {"token_endpoint": cloud.token_endpoint}))
    service = world.start_ready(cloud)
    assert service.api.token_text() == "access/1"
    _, lookup, _ = cloud.requests()
    assert (lookup.method, lookup.target, lookup.version) == ("GET", "/a/b?c=d", "HTTP/1.1")
    assert lookup.headers == (("Host", cloud.url.removeprefix("http://")), ("Accept", "*/*"))
    assert lookup.body == b""


def test_endpoint_is_looked_up_once(world, cloud):
    service = world.start_ready(cloud)
    for scope in ("a", "b", "c"):
        service.api.token_text(scope)
    assert [request.target for request in cloud.requests()][1:] == [WELL_KNOWN_PATH] + 3 * [TOKEN_PATH]


def test_endpoint_is_not_refreshed_while_it_is_known(world, cloud):
    service = world.start_ready(cloud)
    service.api.token_text("a")
    cloud.script(WELL_KNOWN_PATH, Reply(500))
    cloud.script(TOKEN_PATH, Reply(404), None)
    assert service.api.token("b")["status"] == "error"
    assert service.api.token("b")["status"] == "ok"
    assert len(cloud.requests(WELL_KNOWN_PATH)) == 1


def test_failed_lookup_is_tried_again_with_the_next_request(world, cloud):
    service = world.start_ready(cloud)
    cloud.script(WELL_KNOWN_PATH, Reply(500), Raw(b""), None)
    assert [service.api.token()["status"] for _ in range(4)] == ["error", "error", "ok", "ok"]
    assert len(cloud.requests(WELL_KNOWN_PATH)) == 3
    assert len(cloud.requests(TOKEN_PATH)) == 1


def test_redirects_of_the_lookup_are_followed(world, cloud):
    service = world.start_ready(cloud)
    steps = [WELL_KNOWN_PATH, *(f"/step/{number}" for number in range(50))]
    for step, following in zip(steps, steps[1:]):
        cloud.script(step, redirect(following))
    cloud.script(steps[-1], Reply(200, {"token_endpoint": cloud.token_endpoint}))
    assert service.api.token_text() == "access/1"
    assert [request.target for request in cloud.requests()[1:]] == [*steps, TOKEN_PATH]


def bad_documents():
    """(name, status, body, lines after the answer)"""
    return [
        ("empty", 200, "", [NOT_VALID]),
        ("text", 200, "hello %s %n", [NOT_VALID]),
        ("cut off", 200, '{"token_endpoint":"http://', [NOT_VALID]),
        ("array", 200, '["token_endpoint"]', [NOT_VALID]),
        ("no member", 200, '{"issuer":"x"}', [NOT_VALID]),
        ("other capitals", 200, '{"Token_endpoint":"http://127.0.0.1/"}', [NOT_VALID]),
        ("two members", 200, '{"token_endpoint":"a","token_endpoint":"b"}', [NOT_VALID]),
        ("escaped slash", 200, '{"token_endpoint":"http:\\/\\/127.0.0.1\\/"}', [NOT_VALID]),
        ("no content", 204, "", [NOT_VALID]),
        ("million brackets", 200, "[" * 1000000, [NOT_VALID]),
        *((f"endpoint {value}", 200, f'{{"token_endpoint":{value}}}', [error(CLIENT, "Missing token_endpoint tag")])
          for value in ("5", "null", "true", "{}", '["http://127.0.0.1/"]')),
        ("endpoint empty", 200, '{"token_endpoint":""}', [endpoint_found("")]),
        *((f"status {status}", status, "some body", []) for status in (300, 400, 401, 403, 404, 500, 503)),
    ]


@pytest.mark.parametrize("status, body, lines", [pytest.param(*row[1:], id=row[0]) for row in bad_documents()])
def test_document_without_an_endpoint_fails_the_request(shared, status, body, lines):
    service, cloud = shared
    cloud.script(WELL_KNOWN_PATH, Reply(status, body))
    expect_token_failure(service, [*looking_up(cloud.well_known_url), *looked_up(status, body), *lines])
    assert not cloud.requests(TOKEN_PATH)


TRANSFER_FAULTS = [
    ("closed at once", Raw(b""), GOT_NOTHING),
    ("body cut off", Raw(b"HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n{}"), PARTIAL_FILE),
    ("reset inside the body", Raw(b"HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n{", "reset"), RECEIVE_ERROR),
    ("not HTTP", Raw(b"hello, this is not the protocol at all\r\n\r\n"), UNSUPPORTED_PROTOCOL),
    ("endless redirects", redirect(WELL_KNOWN_PATH), TOO_MANY_REDIRECTS),
]


@pytest.mark.parametrize("reply, code", [pytest.param(*row[1:], id=row[0]) for row in TRANSFER_FAULTS])
def test_transfer_failure_fails_the_request(shared, reply, code):
    service, cloud = shared
    cloud.script(WELL_KNOWN_PATH, reply)
    expect_token_failure(service, [*looking_up(cloud.well_known_url),
                                   error(CLIENT, f"curl_easy_perform() failed: {curl_text(code)}")])


def test_the_fifty_first_redirect_of_the_lookup_is_too_many(world, cloud):
    service = world.start_ready(cloud)
    cloud.script(WELL_KNOWN_PATH, redirect(WELL_KNOWN_PATH))
    assert service.api.exchange(token_request()) == TOKEN_REFUSED
    assert len(cloud.requests(WELL_KNOWN_PATH)) == 51


@pytest.mark.parametrize("level", LEVELS)
@pytest.mark.parametrize("url", ["ftp://127.0.0.1/x", "nowhere", "HTTP://127.0.0.1/", "htp://127.0.0.1/", "%s%n"])
def test_url_without_the_letters_http_is_refused_before_any_transfer(world, cloud, url, level):
    cloud.well_known_in_payload = url
    service = world.start_ready(cloud, level)
    expect_token_failure(service, [looking_up(url)[0], error(CLIENT, f"Invalid sso URL: {url}")])
    assert len(cloud.requests()) == 1


@pytest.mark.parametrize("form", ["127.0.0.1:{}/http", "https://127.0.0.1:{}/", "http://127.0.0.1:{}/"])
def test_url_with_the_letters_http_anywhere_fails_in_the_transfer(world, cloud, form):
    url = form.format(world.new_port())
    cloud.well_known_in_payload = url
    service = world.start_ready(cloud)
    expect_token_failure(service, [
        *looking_up(url), error(CLIENT, f"curl_easy_perform() failed: {curl_text(COULD_NOT_CONNECT)}")])


@pytest.fixture
def fifo(tmp_path):
    os.mkfifo(tmp_path / "fifo")
    return tmp_path / "fifo"


@pytest.mark.parametrize("form", ["file:///dev/ptmx", "FILE:/dev/ptmx", "file://{fifo}", "ftp://127.0.0.1:1/x",
                                  "imap://127.0.0.1:1/x"])
def test_endpoint_of_another_scheme_than_http_is_refused(world, cloud, fifo, form):
    """The token endpoint, and the URL of the configuration that names it: some would be waited for beyond the limit."""
    cloud.token_endpoint = form.format(fifo=fifo)
    service = world.start_ready(cloud)
    refused = error(CLIENT, f"curl_easy_perform() failed: {curl_text(UNSUPPORTED_PROTOCOL)}")
    for count in (1, 2):
        assert service.api.exchange(token_request()) == TOKEN_REFUSED
        assert service.log.count(CLIENT, refused.text) == count
        cloud.well_known_in_payload = form.format(fifo=fifo) + "?http"
        again = service.log.mark()
        assert service.api.request("reset")["status"] == "ok"
        service.wait_ready(again)


def test_endpoint_is_forgotten_with_a_reset(world, cloud):
    """After a reset nothing is left of the endpoint or the tokens."""
    service = world.start_ready(cloud)
    assert service.api.token_text() == "access/1"
    since = service.log.mark()
    service.api.request("reset")
    service.wait_ready(since)
    cloud.script(WELL_KNOWN_PATH, Reply(500))
    assert service.api.token()["status"] == "error"
    assert len(cloud.requests(TOKEN_PATH)) == 1


def test_successful_lookup_is_logged_before_the_token_request(world, cloud):
    service = world.start_ready(cloud)
    since = service.log.mark()
    service.api.token_text()
    body = '{"issuer": "%s", "token_endpoint": "%s"}' % (cloud.url, cloud.token_endpoint)
    found = [*looking_up(cloud.well_known_url), *looked_up(200, body), endpoint_found(cloud.token_endpoint)]
    assert service.log.pairs(since, without=API)[:len(found)] == [(line.source, line.text) for line in found]
