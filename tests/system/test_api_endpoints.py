"""The listening sockets of the local API, alone and two at once."""

import pytest

from support.api_client import ApiClient
from support.exchanges import ID_REPLY, ID_REQUEST, answers, expect_answered
from support.framing import frame
from support.log import LEVELS, error, shown
from support.texts import API, API_LISTENING, MANAGER, READY, request_received
from support.waiting import wait_until


# --- the listening socket

@pytest.mark.parametrize("level", LEVELS)
def test_listening_is_logged_in_order(world, cloud, level):
    service = world.start(world.document(cloud.discovery_url, level=level))
    service.wait_listening()
    with service.api.connect() as connection:
        connection.send(frame(b"{}"))
        connection.receive_frame()
    service.expect_log([*API_LISTENING, *request_received("{}")], only=API)


def test_only_the_loopback_interface_is_bound(service):
    with open("/proc/net/tcp") as table:
        listeners = [line.split()[1] for line in table if f":{service.api.port:04X} " in line and " 0A " in line]
    assert listeners == [f"0100007F:{service.api.port:04X}"]


@pytest.mark.parametrize("level", LEVELS)
def test_taken_port_fails_the_binding_and_the_service_goes_on(world, cloud, level):
    port = world.reserve_port()
    port.listen()
    service = world.start(world.document(cloud.discovery_url, ports=[port.number], level=level))
    service.log.wait_for(API, "SSO API socket bind failed ")
    service.expect_log([API_LISTENING[0], error(API, "SSO API socket bind failed ")], only=API)
    service.stop()


def test_same_port_twice_is_served_by_one_of_the_two(world, cloud):
    """The other one fails to bind, or to listen if both had bound before either listened."""
    port = world.new_port()
    service = world.start(world.document(cloud.discovery_url, ports=[port, port])).wait_ready()
    wait_until(lambda: {"SSO API socket bind failed ", "SSO API listen failed"} &
               {text for _, text in service.log.pairs(only=API)}, "a failure of the other endpoint")
    assert service.log.count(API, "SSO API Server listening") == 1
    expect_answered(service)


@pytest.mark.parametrize("level", LEVELS)
def test_failed_accept_builds_the_socket_anew(world, cloud, level):
    """Without a free descriptor accepting fails, and so may the new socket; with one again, clients are served."""
    service = world.start_ready(cloud, level)
    since = service.log.mark()
    failed = error(API, "SSO API server accept failed")
    with service.descriptors_limited_to(service.lowest_free_descriptor()):
        answers(service)  # the waiting accept may have its descriptor already
        service.log.wait_for(API, failed.text, since)
    wait_until(lambda: answers(service), "a service that answers again")
    pairs, rebuilt = service.log.pairs(since), shown([failed, *API_LISTENING], level)
    last = max(place for place, pair in enumerate(pairs) if pair == (API, failed.text))
    assert pairs[last:][:len(rebuilt)] == rebuilt


@pytest.mark.parametrize("level", LEVELS)
def test_no_descriptor_for_a_new_socket_is_reported_and_survived(world, cloud, level):
    service = world.start_ready(cloud, level)
    since = service.log.mark()
    with service.descriptors_limited_to(0):
        answers(service)
        service.log.wait_for(API, "SSO API socket creation failed", since)
    wait_until(lambda: answers(service), "a service that answers again")


# --- two endpoints

@pytest.fixture
def two_endpoints(world, cloud):
    ports = [world.new_port(), world.new_port()]
    service = world.start(world.document(cloud.discovery_url, ports=ports)).wait_ready()
    service.wait_listening(ports[1])
    return service, [ApiClient(port) for port in ports]


def test_both_endpoints_serve_the_same_state(two_endpoints, cloud):
    service, clients = two_endpoints
    assert [client.exchange(ID_REQUEST) for client in clients] == [ID_REPLY, ID_REPLY]
    assert [client.token_text() for client in clients] == ["access/1", "access/1"]
    since = service.log.mark()
    assert clients[1].request("reset") == {"status": "ok"}
    service.log.wait_for(MANAGER, READY.text, since)
    wait_until(lambda: clients[0].request("certificate_id")["status"] == "ok", "a ready service")
    assert clients[0].token_text() == "access/2"


def test_silent_client_of_one_endpoint_does_not_hold_up_the_other(two_endpoints):
    _, (first, second) = two_endpoints
    with first.connect() as silent:
        silent.send(b"\0\0")
        assert second.exchange(ID_REQUEST) == ID_REPLY
        assert second.token_text() == "access/1"
    assert first.exchange(ID_REQUEST) == ID_REPLY


def test_request_without_the_manager_is_answered_while_a_token_is_fetched(two_endpoints, cloud):
    _, (first, second) = two_endpoints
    gate = cloud.hold("/token")
    with first.connect() as waiting:
        waiting.send(frame(b'{"request":"token","scope":"device"}'))
        gate.wait_arrived()
        assert second.exchange(b"{}") == b'{"status":"error","message":"request not specified"}'
        gate.release()
        assert waiting.receive_frame() == b'{"status":"ok","token":"access\\/1"}'
