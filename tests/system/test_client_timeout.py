"""client_timeout_seconds: a client that does not send its request, or does not take its reply, loses its connection."""

import time

import pytest

from support.api_client import ApiClient
from support.configuration import changed
from support.exchanges import (EMPTY_REQUEST, ID_REPLY, ID_REQUEST, ID_SENT, NOT_AN_OBJECT, expect_answered,
                               token_request)
from support.fake_cloud import TOKEN_PATH
from support.framing import frame
from support.log import LEVELS, error, info, seconds_between
from support.texts import (ACCEPTED, API, MANAGER, apis_started, configured, initialised, not_sent_in_time,
                           not_taken_in_time, request_received, size_known)
from support.waiting import MARGIN_SECONDS, wait_until

LIMIT = 0.5  # seconds
UNUSABLE = error(MANAGER,
                 "Configuration file: sso.api_providers client_timeout_seconds is no number from 0.001 to 1000000")
LONG_REQUEST = b'{"request":"%s"}' % (b"/" * 500000)
LONG_REPLY = b'{"status":"error","message":"unsupported request: ' + b"\\/" * 500000 + b'"}'


def with_limits(world, cloud, *limits, level="verbose"):
    """A ready service with a port for each limit."""
    document = world.document(cloud.discovery_url, ports=[world.new_port() for _ in limits], level=level)
    for number, limit in enumerate(limits):
        document = changed(document, f"sso.api_providers.{number}.client_timeout_seconds", limit)
    service = world.start(document).wait_ready()
    for port in ports_of(service):
        service.wait_listening(port)
    return service


def ports_of(service):
    return [entry["port"] for entry in service.section["api_providers"]]


@pytest.fixture(scope="module", params=LEVELS)
def at_level(request, module_world):
    return with_limits(module_world, module_world.new_cloud(), LIMIT, level=request.param)


@pytest.fixture(scope="module")
def limited(module_world):
    return with_limits(module_world, module_world.new_cloud(), LIMIT)


@pytest.fixture(scope="module")
def patient(module_world):
    """With a limit that no client here comes near."""
    return with_limits(module_world, module_world.new_cloud(), 60)


def expect_error_and_end(connection):
    assert connection.receive_frame() == NOT_AN_OBJECT
    assert not connection.receive_end()


def expect_in_time(service, since, line, limit=LIMIT):
    """The line came the limit after the client, and not much later."""
    accepted = service.log.wait_for(API, ACCEPTED.text, since)
    waited = seconds_between(accepted, service.log.wait_for(API, line.text, since))
    assert limit - 0.002 <= waited < limit + MARGIN_SECONDS


# --- the request

@pytest.mark.parametrize("sent, lines", [
    (b"", []), (b"\0\0", []), (frame(b"", 10), [size_known(10)]), (frame(b"12345", 10), [size_known(10)]),
    (frame(b"x" * 300, 100000), [size_known(100000)]),
], ids=["silent", "half a length", "no payload", "half a payload", "beginning of a long one"])
def test_client_that_does_not_send_its_request_gets_the_error_reply(at_level, sent, lines):
    since = at_level.log.mark()
    began = time.monotonic()
    with at_level.api.connect() as connection:
        connection.send(sent)
        expect_error_and_end(connection)
    assert LIMIT - 0.01 < time.monotonic() - began < LIMIT + MARGIN_SECONDS
    at_level.expect_log([ACCEPTED, *lines, not_sent_in_time(LIMIT), *EMPTY_REQUEST], since)
    expect_answered(at_level)


@pytest.mark.parametrize("beginning, lines", [(b"", []), (frame(b"", 100000), [size_known(100000)])],
                         ids=["the length", "the payload"])
def test_time_is_for_the_whole_request(world, cloud, beginning, lines):
    """A byte a second is not enough."""
    limit = 1.5  # half a second after a byte, and before the next one
    service = with_limits(world, cloud, limit)
    since = service.log.mark()
    with service.api.connect() as connection:
        connection.send(beginning)
        began = time.monotonic()
        while connection.has_nothing_for(1):
            assert time.monotonic() - began < limit + MARGIN_SECONDS
            connection.send(b"\0")
        expect_error_and_end(connection)
    service.expect_log([ACCEPTED, *lines, not_sent_in_time(limit), *EMPTY_REQUEST], since)
    expect_in_time(service, since, not_sent_in_time(limit), limit)


# --- the reply

def test_client_that_does_not_take_its_reply_loses_it(limited):
    since = limited.log.mark()
    with limited.api.connect(small_buffers=True) as connection:
        connection.send(frame(LONG_REQUEST))
        limited.log.wait_for(API, not_taken_in_time(LIMIT).text, since)
        limited.expect_log([*request_received(LONG_REQUEST.decode()), not_taken_in_time(LIMIT)], since)
        expect_answered(limited)  # the connection is given up, not just its reply
        with pytest.raises((EOFError, ConnectionResetError)):
            connection.receive_frame()


def test_time_is_for_the_whole_reply(limited):
    since = limited.log.mark()
    with limited.api.connect(small_buffers=True) as connection:
        connection.send(frame(LONG_REQUEST))
        began = time.monotonic()
        while not limited.log.count(API, not_taken_in_time(LIMIT).text, since):
            assert time.monotonic() - began < LIMIT + MARGIN_SECONDS
            connection.receive(100)
            time.sleep(0.01)
        assert time.monotonic() - began > LIMIT - 0.01
    expect_answered(limited)


def test_reply_has_a_time_of_its_own(world, cloud):
    """The request took most of its time; what is left of it is not what the reply gets."""
    service = with_limits(world, cloud, 4)
    since = service.log.mark()
    with service.api.connect(small_buffers=True) as connection:
        assert connection.has_nothing_for(2.5)
        connection.send(frame(LONG_REQUEST))
        assert service.log.wait_for(API, f"Processing request {LONG_REQUEST.decode()}", since)
        time.sleep(2.5)
        assert connection.receive_frame() == LONG_REPLY
        assert not connection.receive_end()
    service.expect_log(request_received(LONG_REQUEST.decode()), since)


# --- the others

def test_next_client_is_served_when_the_time_of_a_silent_one_is_over(limited):
    since = limited.log.mark()
    with limited.api.connect() as silent, limited.api.connect() as second:
        second.send(frame(ID_REQUEST))
        assert second.receive_frame() == ID_REPLY
        expect_error_and_end(silent)
    limited.expect_log([ACCEPTED, not_sent_in_time(LIMIT), *EMPTY_REQUEST, *request_received(ID_REQUEST.decode()),
                        ID_SENT], since)


def test_queue_of_silent_clients_costs_the_next_one_their_time_and_no_more(world, cloud):
    service = with_limits(world, cloud, 0.2)
    since = service.log.mark()
    silent = [service.api.connect() for _ in range(5)]
    began = time.monotonic()
    expect_answered(service)
    assert 0.95 < time.monotonic() - began < 1 + MARGIN_SECONDS
    service.expect_log([*[ACCEPTED, not_sent_in_time(0.2), *EMPTY_REQUEST] * 5, *request_received(ID_REQUEST.decode()),
                        ID_SENT], since)
    for connection in silent:
        with connection:
            expect_error_and_end(connection)


def test_each_port_has_its_own_limit(world, cloud):
    service = with_limits(world, cloud, 0.3, 4)
    since = service.log.mark()
    first, second = ports_of(service)
    began = time.monotonic()
    with ApiClient(second).connect() as late, ApiClient(first).connect() as early:
        expect_error_and_end(early)
        assert not service.log.count(API, not_sent_in_time(4).text, since)
        assert ApiClient(first).exchange(ID_REQUEST) == ID_REPLY
        expect_error_and_end(late)
        assert time.monotonic() - began > 3.99
    for limit in (0.3, 4):
        assert service.log.count(API, not_sent_in_time(limit).text, since) == 1


# --- who is left alone

def test_good_client_notices_nothing(limited):
    since = limited.log.mark()
    assert limited.api.exchange(ID_REQUEST) == ID_REPLY
    limited.expect_log([*request_received(ID_REQUEST.decode()), ID_SENT], since)


def test_slow_client_that_keeps_its_time_is_served(patient):
    since = patient.log.mark()
    with patient.api.connect(small_buffers=True) as connection:
        connection.send_slowly(frame(LONG_REQUEST)[:20], pause=0.01)
        connection.send(frame(LONG_REQUEST)[20:])
        time.sleep(0.5)
        assert connection.receive_frame() == LONG_REPLY
        assert not connection.receive_end()
    patient.expect_log(request_received(LONG_REQUEST.decode()), since)


@pytest.mark.parametrize("sent, lines", [
    (b"\0", [error(API, "SSO API connection closed while reading request")]),
    (frame(b"123", 10), [size_known(10), error(API, "SSO API connection closed while reading request")]),
], ids=["half a length", "half a payload"])
def test_client_that_leaves_is_not_one_that_is_late(patient, sent, lines):
    since = patient.log.mark()
    with patient.api.connect() as connection:
        connection.send(sent)
        connection.half_close()
        expect_error_and_end(connection)
    patient.expect_log([ACCEPTED, *lines, *EMPTY_REQUEST], since)


def test_reset_is_not_a_late_client_either(patient):
    since = patient.log.mark()
    with patient.api.connect() as connection:
        connection.send(b"\0\0")
        patient.log.wait_for(API, ACCEPTED.text, since)
        connection.reset()
    failed = error(API, "SSO API write failed")
    patient.log.wait_for(API, failed.text, since)
    unread = error(API, "SSO API request read failed, read 4 bytes - message length")
    patient.expect_log([ACCEPTED, unread, *EMPTY_REQUEST, failed], since)


def test_time_of_the_identity_provider_is_not_the_clients(world, cloud):
    service = with_limits(world, cloud, 0.3)
    gate = cloud.hold(TOKEN_PATH)
    since = service.log.mark()
    with service.api.connect() as connection:
        connection.send(frame(token_request().encode()))
        gate.wait_arrived()
        assert connection.has_nothing_for(1)
        gate.release()
        assert connection.receive_frame() == b'{"status":"ok","token":"access\\/1"}'
        assert not connection.receive_end()
    assert not [entry for entry in service.log.entries(since) if "in 0.3 seconds" in entry.text]


# --- the value

def test_without_the_key_a_silent_client_is_waited_for(world, cloud):
    """As ever, also on a port beside one that has a limit."""
    document = world.document(cloud.discovery_url, ports=[world.new_port(), world.new_port()])
    service = world.start(changed(document, "sso.api_providers.1.client_timeout_seconds", 0.2)).wait_ready()
    since = service.log.mark()
    with service.api.connect() as silent:
        assert silent.has_nothing_for(2)
        silent.send(frame(ID_REQUEST))
        assert silent.receive_frame() == ID_REPLY
        assert not silent.receive_end()
    service.expect_log([*request_received(ID_REQUEST.decode()), ID_SENT], since)


def one_api(*more):
    return [info(MANAGER, "SSO Provider type: socket"), info(MANAGER, "Starting SSO API Provider: socket"), *more,
            info(MANAGER, "SSO API provider type: socket successfully created")]


@pytest.mark.parametrize("level", LEVELS)
def test_unusable_value_is_an_error_and_no_limit(world, cloud, level):
    values = ["5", "", 0, 0.0, -1, -0.5, 0.0009, 1e-300, 1000000.1, 1e9, 1e300, None, True, False, [5], {"seconds": 5}]
    service = with_limits(world, cloud, *values, level=level)
    apis = apis_started(len(values))
    common = configured(service)[:-len(apis)]
    service.expect_main_log([*common, *apis[:2], *(one_api(UNUSABLE) * len(values)), *initialised(cloud)])
    clients = [ApiClient(port).connect() for port in ports_of(service)]
    assert clients[0].has_nothing_for(1.5)
    for client in clients:
        with client:
            assert client.has_nothing_for(0.01)
            client.send(frame(ID_REQUEST))
            assert client.receive_frame() == ID_REPLY


@pytest.mark.parametrize("value, shown", [(0.001, "0.001"), (0.25, "0.25"), (0.0625, "0.062"), (1, "1"), (1.0, "1"),
                                          (1e0, "1")])
def test_value_may_have_a_fraction(world, cloud, value, shown):
    """It counts in whole milliseconds."""
    service = world.start(changed(world.document(cloud.discovery_url), "sso.api_providers.0.client_timeout_seconds",
                                  value))
    service.wait_listening()
    since = service.log.mark()
    with service.api.connect() as connection:
        expect_error_and_end(connection)
    expect_in_time(service, since, not_sent_in_time(shown), float(shown))


@pytest.mark.parametrize("value", [1000000, 1e6, 999999.999, 5])
def test_large_value_is_taken(world, cloud, value):
    service = with_limits(world, cloud, value)
    service.expect_main_log([*configured(service), *initialised(cloud)])
    with service.api.connect() as silent:
        assert silent.has_nothing_for(1)
        silent.send(frame(ID_REQUEST))
        assert silent.receive_frame() == ID_REPLY


# --- the process

def test_no_descriptor_stays_with_clients_that_are_late(world, cloud):
    service = with_limits(world, cloud, 0.05)
    before = service.open_descriptors()
    for number in range(40):
        with service.api.connect() as connection:
            connection.send(frame(b"x" * 100, 1000) if number % 2 else b"")
            expect_error_and_end(connection)
    wait_until(lambda: service.open_descriptors() == before, lambda: str(service.open_descriptors()))


@pytest.mark.parametrize("small_buffers, sent", [(False, b""), (True, frame(LONG_REQUEST))],
                         ids=["its request", "its taking the reply"])
def test_stop_does_not_wait_for_a_client_that_is_waited_for(world, cloud, small_buffers, sent):
    service = with_limits(world, cloud, 60)
    since = service.log.mark()
    with service.api.connect(small_buffers) as connection:
        connection.send(sent)
        service.log.wait_for(API, f"Processing request {LONG_REQUEST.decode()}" if sent else ACCEPTED.text, since)
        service.stop(seconds=10)
