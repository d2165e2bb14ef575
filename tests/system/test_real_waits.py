"""Waits for real: everything starts at once, so that all of it takes little more than the longest wait."""

import socket
from collections import namedtuple

import pytest

from support.configuration import orvex_provider
from support.curl_text import TIMED_OUT, curl_text
from support.exchanges import TOKEN_REFUSED, token_request
from support.fake_cloud import TOKEN_PATH, WELL_KNOWN_PATH
from support.framing import frame
from support.http_server import Raw, Reply
from support.log import error, expect_waited
from support.ports import LOOPBACK
from support.texts import (API, API_LISTENING, CLIENT, CONFIGURING, DISCOVERY, MANAGER, ORVEX, READY,
                           good_reply, retried, token_failed, without_cache)

pytestmark = pytest.mark.slow

PATIENCE = 45
TIMEOUT_LOGGED = f"curl_easy_perform() failed: {curl_text(TIMED_OUT)}"

Waiting = namedtuple("Waiting", "service cloud detail")


@pytest.fixture(scope="module", autouse=True)
def waits(module_world):
    """All services at once, by the name of what they wait for."""
    result = {name: start(module_world) for name, start in STARTS.items()}
    yield result
    for opened in result["key service full"].detail:
        opened.close()


def retry(world):
    cloud = world.new_cloud()
    cloud.script(cloud.discovery_path, Reply(503), None)
    service = world.start(world.document(cloud.discovery_url))
    service.wait_failed()
    return Waiting(service, cloud, service.log.mark())


def taken_port(world):
    cloud, port = world.new_cloud(), world.reserve_port()
    port.listen()
    service = world.start(world.document(cloud.discovery_url, ports=[port.number]))
    service.log.wait_for(API, "SSO API socket bind failed ")
    port.close()
    return Waiting(service, cloud, None)


def discovery(reply):
    def start(world):
        cloud = world.new_cloud()
        cloud.script(cloud.discovery_path, reply)
        return Waiting(world.start(world.document(cloud.discovery_url)), cloud, None)
    return start


def token(path):
    """A token request under way at a path that never answers."""
    def start(world):
        cloud = world.new_cloud()
        service = world.start_ready(cloud)
        cloud.script(path, Raw(ending="hold"))
        since = service.log.mark()
        connection = service.api.connect()
        connection.send(frame(token_request().encode()))
        return Waiting(service, cloud, (connection, since))
    return start


def full_key_service(world):
    """A listener whose queue is full takes no further connection and does not refuse it either."""
    listener = socket.create_server((LOOPBACK, 0), backlog=0)
    opened = [listener]
    for _ in range(4):
        client = socket.socket()
        client.setblocking(False)
        client.connect_ex(listener.getsockname())
        opened.append(client)
    cloud = world.new_cloud()
    provider = orvex_provider(listener.getsockname()[1])
    return Waiting(world.start(world.document(cloud.discovery_url, provider)), cloud, opened)


DRIP = Raw(b"HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n" + b" " * 100000, pause=0.5)

STARTS = {
    "discovery stalls": discovery(Raw(ending="hold")), "discovery drips": discovery(DRIP),
    "key service full": full_key_service, "lookup": token(WELL_KNOWN_PATH), "token": token(TOKEN_PATH),
    "retry": retry, "taken port": taken_port,
}


def test_key_service_that_does_not_take_the_connection_is_given_up_after_10_seconds(waits):
    service = waits["key service full"].service
    assert service.wait_failed() == "Orvex Key Certificate socket couldn't be open"
    created = service.log.wait_for(ORVEX, "Orvex Key Certificate socket successfully created")
    failed = service.log.wait_for(ORVEX, "Orvex Key Certificate socket couldn't be open")
    expect_waited(10, created, failed, margin=5)


@pytest.mark.parametrize("name", ["discovery stalls", "discovery drips"])
def test_discovery_is_given_up_after_30_seconds(waits, name):
    service, cloud, _ = waits[name]
    asked = service.log.wait_for(DISCOVERY, f"Making discovery request to {cloud.discovery_url}")
    failed = service.log.wait_for(DISCOVERY, TIMEOUT_LOGGED, seconds=PATIENCE)
    expect_waited(30, asked, failed)
    cause = f"Couldn't retrieve discovery data from {cloud.discovery_url} Curl failed. Error: {curl_text(TIMED_OUT)}"
    assert service.wait_failed() == without_cache(cause)


@pytest.mark.parametrize("name", ["lookup", "token"])
def test_token_request_is_refused_after_30_seconds(waits, name):
    service, cloud, (connection, since) = waits[name]
    failed = service.log.wait_for(CLIENT, TIMEOUT_LOGGED, since, seconds=PATIENCE)
    expect_waited(30, service.log.entries(since)[0], failed)
    with connection:
        assert connection.receive_frame() == TOKEN_REFUSED
    assert service.log.pairs(since)[-1] == (API, token_failed().text)
    cloud.unscript()
    assert service.api.token_text()


def test_failed_initialisation_is_repeated_after_30_seconds(waits):
    service, cloud, since = waits["retry"]
    failed = service.log.entries()[since - 1]
    again = service.log.wait_for(MANAGER, CONFIGURING.text, since, seconds=PATIENCE)
    expect_waited(30, failed, again)
    service.wait_ready(since)
    service.expect_log([*retried(cloud), *good_reply(cloud), READY], since, without=API)
    assert len(cloud.requests()) == 2
    assert service.api.token_text() == "access/1"


def test_taken_port_is_tried_again_after_30_seconds(waits):
    service = waits["taken port"].service
    failed = service.log.wait_for(API, "SSO API socket bind failed ")
    listening = service.log.wait_for(API, "SSO API Server listening", seconds=PATIENCE)
    expect_waited(30, failed, listening)
    assert service.api.request("certificate_id") == {"status": "ok", "certificate_id": "device-0001"}
    expected = [API_LISTENING[0], error(API, "SSO API socket bind failed "), *API_LISTENING]
    assert service.log.pairs(only=API)[:5] == [(line.source, line.text) for line in expected]
