"""Clients of the local API that leave early, do not read, keep silent, or send what nobody should."""

import random
import struct

import pytest

from support.exchanges import EMPTY_REQUEST, ID_REPLY, ID_REQUEST, NOT_AN_OBJECT, expect_answered
from support.framing import frame
from support.log import error
from support.texts import ACCEPTED, API, size_known
from support.waiting import wait_until

CLOSED = error(API, "SSO API connection closed while reading request")
LENGTH_UNREAD = error(API, "SSO API request read failed, read 4 bytes - message length")
WRITE_FAILED = error(API, "SSO API write failed")


def payload_unread(count, length):
    return error(API, f"SSO API request read failed, read {count} out of {length}")


# --- clients that leave

@pytest.mark.parametrize("sent, lines", [
    (b"", [CLOSED]), (b"\0", [CLOSED]), (b"\0\0\0", [CLOSED]), (frame(b"", 5), [size_known(5), CLOSED]),
    (frame(b"1234", 5), [size_known(5), CLOSED]), (frame(b"x" * 251, 252), [size_known(252), CLOSED]),
    (frame(b"x" * 1000, 100000), [size_known(100000), CLOSED]),
], ids=["nothing", "1 byte", "3 bytes", "length only", "one byte short", "one byte short of 252", "much short"])
def test_half_closed_connection_gets_the_error_reply(service_at_level, sent, lines):
    since = service_at_level.log.mark()
    with service_at_level.api.connect() as connection:
        connection.send(sent)
        connection.half_close()
        assert connection.receive_frame() == NOT_AN_OBJECT
        assert not connection.receive_end()
    service_at_level.expect_log([ACCEPTED, *lines, *EMPTY_REQUEST], since)


def test_half_close_behind_a_whole_request_does_not_matter(service):
    with service.api.connect() as connection:
        connection.send(frame(ID_REQUEST))
        connection.half_close()
        assert connection.receive_frame() == ID_REPLY
        assert not connection.receive_end()


@pytest.mark.parametrize("sent", [b"", b"\0\0", frame(b"12", 5), frame(b"hello"), frame(ID_REQUEST)],
                         ids=["nothing", "half a length", "half a payload", "bad request", "request"])
@pytest.mark.parametrize("end", ["close", "reset"])
def test_client_that_leaves_early_costs_nothing_but_log_lines(service, sent, end):
    for _ in range(5):
        connection = service.api.connect()
        connection.send(sent)
        getattr(connection, end)()
    expect_answered(service)


@pytest.mark.parametrize("sent, progress, lines", [
    (b"", ACCEPTED.text, [LENGTH_UNREAD]), (b"\0\0\0", ACCEPTED.text, [LENGTH_UNREAD]),
    (frame(b"", 10), size_known(10).text, [size_known(10), payload_unread(0, 10)]),
    (frame(b"123", 10), size_known(10).text, [size_known(10), payload_unread(3, 10)]),
], ids=["nothing", "half a length", "no payload", "half a payload"])
def test_reset_while_a_request_is_read_fails_the_read_and_the_reply(service, sent, progress, lines):
    since = service.log.mark()
    connection = service.api.connect()
    connection.send(sent)
    service.log.wait_for(API, progress, since)
    connection.reset()
    service.log.wait_for(API, WRITE_FAILED.text, since)
    service.expect_log([ACCEPTED, *lines, *EMPTY_REQUEST, WRITE_FAILED], since)
    expect_answered(service)


@pytest.mark.parametrize("sent, lines", [
    (b"\0\0", [LENGTH_UNREAD]),
    (frame(b"123", 10), [size_known(10), payload_unread(3, 10)]),
], ids=["half a length", "half a payload"])
def test_reset_while_a_request_is_read_is_an_error_at_every_level(service_at_level, sent, lines):
    service = service_at_level
    since = service.log.mark()
    connection = service.api.connect()
    connection.send(sent)
    assert connection.has_nothing_for(0.1)  # long enough to be read: not every level shows it
    connection.reset()
    service.log.wait_for(API, WRITE_FAILED.text, since)
    service.expect_log([ACCEPTED, *lines, *EMPTY_REQUEST, WRITE_FAILED], since)


def test_reset_inside_the_reply_fails_the_write(service):
    since = service.log.mark()
    connection = service.api.connect(small_buffers=True)
    connection.send(frame(b'{"request":"%s"}' % (b"/" * 1000000)))
    length, = struct.unpack(">I", connection.receive(4))
    assert length == len(b'{"status":"error","message":"unsupported request: "}') + 2 * 1000000
    connection.reset()
    service.log.wait_for(API, WRITE_FAILED.text, since)
    expect_answered(service)


def test_long_reply_reaches_a_slow_reader_whole(service):
    with service.api.connect(small_buffers=True) as connection:
        connection.send(frame(b'{"request":"%s"}' % (b"/" * 200000)))
        reply = connection.receive_frame()
        assert reply == b'{"status":"error","message":"unsupported request: ' + b"\\/" * 200000 + b'"}'
        assert not connection.receive_end()


# --- one connection at a time

def test_second_client_waits_until_the_first_is_done(service):
    with service.api.connect() as silent, service.api.connect() as second:
        second.send(frame(ID_REQUEST))
        assert second.has_nothing_for(0.3)
        silent.send(frame(b"{}"))
        assert silent.receive_frame() == b'{"status":"error","message":"request not specified"}'
        assert second.receive_frame() == ID_REPLY


@pytest.mark.parametrize("end", ["close", "reset", "half_close"])
def test_second_client_is_served_when_a_silent_first_one_leaves(service, end):
    with service.api.connect() as silent, service.api.connect() as second:
        second.send(frame(ID_REQUEST))
        assert second.has_nothing_for(0.05)
        getattr(silent, end)()
        assert second.receive_frame() == ID_REPLY


def test_waiting_clients_are_served_in_the_order_of_their_coming(service):
    silent = service.api.connect()
    waiting = [service.api.connect() for _ in range(5)]
    since = service.log.mark()
    for number, connection in enumerate(waiting):
        connection.send(frame(b'{"request":"number %d"}' % number))
    silent.close()
    for number, connection in enumerate(waiting):
        with connection:
            assert connection.receive_frame() == (
                b'{"status":"error","message":"unsupported request: number %d"}' % number)
    handled = [text for _, text in service.log.pairs(since) if text.startswith("Processing request {")]
    assert handled == [f'Processing request {{"request":"number {number}"}}' for number in range(5)]


# --- malice

DEEP = 1000000


@pytest.mark.parametrize("payload, message", [
    (b"[" * DEEP, "Input is not a valid object"),
    (b'{"a":' * (DEEP // 5), "Input is not a valid object"),
    (b"]" * DEEP, "Input is not a valid object"),
    (b"{" * DEEP, "Input is not a valid object"),
    (b"[" * (DEEP // 2) + b"]" * (DEEP // 2), "request not specified"),
    (b'{"request":' + b"[" * (DEEP // 2) + b"]" * (DEEP // 2) + b"}", "request not specified"),
    (b'{"a":' * (DEEP // 6) + b"1" + b"}" * (DEEP // 6), "request not specified"),
    (b'{"request":"token","scope":' + b"[" * (DEEP // 2) + b"]" * (DEEP // 2) + b"}", "unspecified token scope"),
    (b'{"request":"' + b"\\u0041" * (DEEP // 6) + b'"}', "unsupported request: "),
    (b'{"request":"' + b"\\" * DEEP, "Input is not a valid object"),
    (b'"' * DEEP, "Input is not a valid object"),
    (b" " * DEEP, "Input is not a valid object"),
    (b"[" + b"1," * (DEEP // 2) + b"1]", "request not specified"),
    (b'{"n":' + b"9" * DEEP + b"}", "request not specified"),
    (b"{" + b",".join(b'"%d":0' % number for number in range(20000)) + b"}", "request not specified"),
], ids=["open arrays", "open objects", "closing brackets", "braces", "nested arrays", "nested in request",
        "nested objects", "nested in scope", "escapes", "backslashes", "quotes", "blanks", "long array", "long number",
        "many keys"])
def test_extreme_document_is_answered_at_once(service, payload, message):
    assert service.api.exchange(payload).decode() == f'{{"status":"error","message":"{message}"}}'
    expect_answered(service)


def test_random_bytes_are_always_answered(service):
    seed = random.randrange(2 ** 32)
    print(f"seed {seed}")
    generator = random.Random(seed)
    alphabet = b'{}[]",:\\u0 \n\0tfn-1e.' + ID_REQUEST
    for _ in range(300):
        count = generator.choice([1, 3, 10, 100, 300, 3000])
        source = generator.choice([bytes(range(256)), alphabet])
        reply = service.api.exchange(bytes(generator.choices(source, k=count)))
        assert reply.startswith(b'{"status":"error","message":"')
    expect_answered(service)


def test_random_streams_never_stop_the_service(service):
    """No frame at all: random bytes, random ends."""
    seed = random.randrange(2 ** 32)
    print(f"seed {seed}")
    generator = random.Random(seed)
    for _ in range(200):
        connection = service.api.connect()
        data = generator.randbytes(generator.choice([0, 1, 3, 4, 5, 50, 260, 5000]))
        if generator.random() < 0.5:
            data = data and bytes(3) + data
        connection.send(data)
        generator.choice([connection.close, connection.reset, connection.half_close])()
        connection.close()
        expect_answered(service)  # one after the other: the queue of waiting clients is short


def test_no_descriptor_stays_open_whatever_clients_do(service):
    expect_answered(service)
    before = len(service.open_descriptors())
    for sent in (b"", b"\0\0", frame(b"12", 5), frame(b"hello"), frame(ID_REQUEST), frame(b"", 0xffffffff)):
        for end in ("close", "reset"):
            connection = service.api.connect()
            connection.send(sent)
            getattr(connection, end)()
            expect_answered(service)
    wait_until(lambda: len(service.open_descriptors()) == before, lambda: str(service.open_descriptors()))
