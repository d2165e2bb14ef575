"""Local clients that keep silent, leave, send what nobody should, or come in crowds."""

import re
import struct
import threading
from collections import namedtuple

import pytest
from cells import UNCHANGED, WRITTEN, Cell, files_in, matrix

from support.api_client import ApiClient
from support.configuration import REMOVED, changed
from support.exchanges import (ID_REPLY, ID_REQUEST, ID_SENT, INVALID_REQUEST, NOT_AN_OBJECT, expect_answered,
                               token_request)
from support.fake_cloud import TOKEN_PATH
from support.framing import LARGEST_PAYLOAD, frame
from support.log import error, expect_waited, info
from support.texts import (ACCEPTED, API, API_LISTENING, MANAGER, READY, not_sent_in_time, not_taken_in_time,
                           size_known, token_sent)
from support.waiting import wait_until

CLOSED = error(API, "SSO API connection closed while reading request")
LENGTH_UNREAD = error(API, "SSO API request read failed, read 4 bytes - message length")
WRITE_FAILED = error(API, "SSO API write failed")
SIZE = size_known("{size}")
RECEIVED = info(API, "SSO API received request {request}")
REFUSED = NOT_AN_OBJECT.decode()
ANSWERED = ID_REPLY.decode()
LONG_REQUEST = frame(b'{"request":"%s"}' % (b"/" * 1000000))


def message(text):
    return f'{{"status":"error","message":"{text}"}}'


def unread(count):
    return error(API, "SSO API request read failed, read %s out of {size}" % count)


@pytest.fixture
def start(world, cloud):
    return started(world, cloud)


def started(world, cloud, limit=REMOVED):
    """A ready service with two ports: whoever holds up the second one, which may have a time limit, does not hold up
    the first."""
    ports = [world.new_port(), world.new_port()]
    folder = world.new_folder("backup")
    document = world.document(cloud.discovery_url, ports=ports, cache_folder=folder)
    if limit is not REMOVED:
        document = changed(document, "sso.api_providers.1.client_timeout_seconds", limit)
    service = world.start(document).wait_ready()
    service.wait_listening(ports[1])
    before = files_in(folder)
    assert before

    def judge_all(judge, replies, since, **values):
        for reply in replies:
            judge.reply(reply, **values)
        judge.log(service, since, **values)
        judge.state(service)
        judge.files(before, files_in(folder))
        judge.status(service)

    return namedtuple("Started", "service api judge_all")(service, ApiClient(ports[1]), judge_all)


# --- what is sent

def padded(length):
    """A request for the id of exactly this many bytes."""
    return frame(ID_REQUEST + b" " * (length - len(ID_REQUEST)))


def sends(fault, data, reply, *log):
    return Cell(fault, log=log, reply=reply, files=UNCHANGED, script=data)


def sends_good(fault, data):
    return sends(fault, data, ANSWERED, SIZE, RECEIVED, ID_SENT)


def sends_garbage(fault, payload):
    return sends(fault, frame(payload), REFUSED, SIZE, RECEIVED, INVALID_REQUEST)


DEPTH = 500000


@matrix(
    "Local clients send what nobody should",
    sends_good("request of 251 bytes", padded(251)),
    sends_good("request of 252 bytes", padded(252)),
    sends("request of 1 MiB", padded(LARGEST_PAYLOAD), ANSWERED, SIZE, ID_SENT),
    sends_good("bytes behind the request", frame(ID_REQUEST) + b"x" * 1000),
    sends_good("second request behind the first", frame(ID_REQUEST) * 2),
    sends_good("NUL behind the request", frame(ID_REQUEST + b"\0garbage")),
    sends_garbage("request of no byte", b""),
    sends_garbage("request of 1 byte", b"x"),
    sends_garbage("request cut off", ID_REQUEST[:-1]),
    sends_garbage("request is no JSON", b"hello\n\x01\x7f"),
    sends_garbage("NUL inside the request", ID_REQUEST.replace(b"_", b"\0")),
    sends("500000 brackets left open", frame(b"[" * DEPTH), REFUSED, SIZE, INVALID_REQUEST),
    sends("500000 brackets closed again", frame(b"[" * DEPTH + b"]" * DEPTH), message("request not specified"), SIZE),
    sends("request is not UTF-8", frame(b'{"request":"\xff\xfe\xc0"}'), message("unsupported request: {name}"),
          SIZE, RECEIVED),
    sends("1 MiB and a byte", frame(b"x" * (LARGEST_PAYLOAD + 1)), REFUSED, SIZE, unread("{count}"), INVALID_REQUEST),
    sends("2 GiB less a byte announced", frame(b"", 0x7fffffff), REFUSED, SIZE, unread(0), INVALID_REQUEST),
    sends("2 GiB announced", frame(b"", 0x80000000), REFUSED, SIZE, unread(0), INVALID_REQUEST),
    sends("4 GiB less a byte announced", frame(b"", 0xffffffff), REFUSED, SIZE, unread(0), INVALID_REQUEST))
def test_frame_is_answered(start, judge, cell):
    service, api, judge_all = start
    since, before = service.log.mark(), service.peak_memory_kilobytes()
    with api.connect() as connection:
        connection.send_slowly(cell.script, size=300000, pause=0.05)  # a refusal meets a client that still sends
        reply = connection.receive_frame()
        connection.receive_end()
    assert service.peak_memory_kilobytes() - before < 8 * 1024
    size, = struct.unpack(">i", cell.script[:4])
    request = cell.script[4:4 + size].split(b"\0")[0].decode(errors="surrogateescape")
    judge_all(judge, [reply], since, size=size, request=request, name="\udcff\udcfe\udcc0", count=re.compile(r"\d+"))


# --- clients that leave

Leaving = namedtuple("Leaving", "sent seen end")  # what is seen in the log before the client leaves


def leaves(fault, sent, seen, end, *log, reply=None):
    return Cell(fault, log=log, reply=reply, files=UNCHANGED, script=Leaving(sent, seen, end))


@matrix(
    "Local clients leave",
    *(leaves(f"half-closed {place}", sent, ACCEPTED, "half_close", *log, INVALID_REQUEST, reply=REFUSED)
      for place, sent, log in (("before a byte", b"", [CLOSED]), ("inside the length", b"\0\0", [CLOSED]),
                               ("before the payload", frame(b"", 10), [size_known(10), CLOSED]),
                               ("inside the payload", frame(b"123", 10), [size_known(10), CLOSED]))),
    leaves("reset before a byte", b"", ACCEPTED, "reset", LENGTH_UNREAD, INVALID_REQUEST, WRITE_FAILED),
    leaves("reset inside the length", b"\0\0", ACCEPTED, "reset", LENGTH_UNREAD, INVALID_REQUEST, WRITE_FAILED),
    *(leaves(f"reset {place}", frame(sent, 10), size_known(10), "reset", size_known(10),
             error(API, f"SSO API request read failed, read {len(sent)} out of 10"), INVALID_REQUEST, WRITE_FAILED)
      for place, sent in (("before the payload", b""), ("inside the payload", b"123"))))
def test_client_leaves_before_its_request_is_whole(start, judge, cell):
    service, api, judge_all = start
    since = service.log.mark()
    with api.connect() as connection:
        connection.send(cell.script.sent)
        service.log.wait_for(API, cell.script.seen.text, since)
        getattr(connection, cell.script.end)()
        reply = connection.receive_frame() if cell.reply else None
    judge_all(judge, [reply], since)


@matrix(
    "Local clients leave",
    leaves("closed while its request is served", None, None, "close", token_sent("{token}")),
    leaves("reset while its request is served", None, None, "reset", token_sent("{token}"), WRITE_FAILED))
def test_client_leaves_before_its_reply_comes(start, cloud, judge, cell):
    service, api, judge_all = start
    since = service.log.mark()
    gate = cloud.hold(TOKEN_PATH)
    with api.connect() as connection:
        connection.send(frame(token_request().encode()))
        gate.wait_arrived()
        getattr(connection, cell.script.end)()
    gate.release()
    judge_all(judge, [None], since, token='{"status":"ok","token":"access\\/1"}')
    assert service.log.count(API, CLOSED.text, since) == 0


# --- clients that hold up their port

Blocking = namedtuple("Blocking", "sent received end")


def holds_up(fault, sent, received, end, *log):
    """The next client of the port waits, and is served when this one is gone."""
    return Cell(fault, log=log, reply=ANSWERED, files=UNCHANGED, script=Blocking(sent, received, end))


@matrix(
    "Local clients hold up their port",
    holds_up("silent, then closed", b"", 0, "close", CLOSED, ID_SENT),
    holds_up("silent inside the length, then closed", b"\0\0", 0, "close", CLOSED, ID_SENT),
    holds_up("silent inside the payload, then closed", frame(b"123", 10), 0, "close", size_known(10), CLOSED, ID_SENT),
    holds_up("silent, then reset", b"", 0, "reset", LENGTH_UNREAD, WRITE_FAILED, ID_SENT),
    holds_up("takes no reply, then closed", LONG_REQUEST, 0, "close", WRITE_FAILED, ID_SENT),
    holds_up("takes the beginning of its reply, then reset", LONG_REQUEST, 1000, "reset", WRITE_FAILED, ID_SENT))
def test_others_wait_until_a_client_leaves(start, judge, cell):
    service, api, judge_all = start
    since = service.log.mark()
    with api.connect(small_buffers=True) as first, api.connect() as second:
        hold_up(service, first, cell, since)
        second.send(frame(ID_REQUEST))
        assert second.has_nothing_for(0.3)
        expect_answered(service)  # on the other port
        getattr(first, cell.script.end)()
        reply = second.receive_frame()
    judge_all(judge, [reply], since)


@matrix(
    "Local clients hold up their port",
    *(Cell(fault, log=log, files=UNCHANGED, script=Blocking(sent, 0, None)) for fault, sent, log in (
        ("silent until the stop", b"", (ACCEPTED,)),
        ("silent inside the length until the stop", b"\0\0", (ACCEPTED,)),
        ("silent inside the payload until the stop", frame(b"123", 10), (ACCEPTED, size_known(10))),
        ("takes no reply until the stop", LONG_REQUEST, (ACCEPTED,)))))
def test_client_that_holds_up_its_port_does_not_hold_up_the_stop(start, judge, cell):
    service, api, judge_all = start
    since = service.log.mark()
    with api.connect(small_buffers=True) as first:
        hold_up(service, first, cell, since)
        judge_all(judge, [None], since)


LIMIT = 0.5


def loses_its_turn(fault, sent, received, *log):
    """The next client of the port is served when the time of this one is over."""
    return Cell(f"{fault}, with a time limit", log=(*log, ID_SENT), reply=ANSWERED, files=UNCHANGED,
                script=Blocking(sent, received, None))


@matrix(
    "Local clients hold up their port",
    loses_its_turn("silent", b"", 0, not_sent_in_time(LIMIT), INVALID_REQUEST),
    loses_its_turn("silent inside the length", b"\0\0", 0, not_sent_in_time(LIMIT), INVALID_REQUEST),
    loses_its_turn("silent inside the payload", frame(b"123", 10), 0, not_sent_in_time(LIMIT), INVALID_REQUEST),
    loses_its_turn("takes no reply", LONG_REQUEST, 0, not_taken_in_time(LIMIT)),
    loses_its_turn("takes the beginning of its reply", LONG_REQUEST, 1000, not_taken_in_time(LIMIT)))
def test_others_wait_until_the_time_of_a_client_is_over(world, cloud, judge, cell):
    service, api, judge_all = started(world, cloud, LIMIT)
    since = service.log.mark()
    with api.connect(small_buffers=True) as first, api.connect() as second:
        hold_up(service, first, cell, since)
        second.send(frame(ID_REQUEST))
        reply = second.receive_frame()
        judge_all(judge, [reply], since)


def hold_up(service, first, cell, since):
    first.send(cell.script.sent)
    service.log.wait_for(API, ACCEPTED.text, since)
    first.receive(cell.script.received)


# --- crowds

CONNECTIONS = 5000
CROWD = 200


@matrix(
    "Local clients come in crowds",
    Cell("5000 connections, every second one closed at once", log=(CLOSED, INVALID_REQUEST, ID_SENT), reply=ANSWERED,
         files=UNCHANGED))
def test_connections_leave_nothing_behind(start, judge, cell):
    service, api, judge_all = start
    come_and_go(api, CONNECTIONS // 10)
    since, memory, descriptors = service.log.mark(), service.resident_memory_kilobytes(), service.open_descriptors()
    replies = come_and_go(api, CONNECTIONS)
    wait_until(lambda: service.open_descriptors() == descriptors, lambda: str(service.open_descriptors()))
    assert service.resident_memory_kilobytes() - memory < 1024
    judge_all(judge, replies, since)


def come_and_go(api, count):
    """The replies to every second connection."""
    replies = []
    for _ in range(count // 2):
        api.connect().close()
        replies.append(api.exchange(ID_REQUEST))
    return replies


@matrix(
    "Local clients come in crowds",
    Cell("200 clients at once, each asking again after a second", log=(ID_SENT,), reply=ANSWERED, files=UNCHANGED))
def test_crowd_is_served_in_the_end(start, judge, cell):
    """The queue holds few. A connection that it did not take may look open to its client, and no reply ever comes."""
    service, api, judge_all = start
    since = service.log.mark()
    impatient = ApiClient(api.port, patience=1)
    replies = []
    crowd = [threading.Thread(target=lambda: replies.append(wait_until(lambda: asked(impatient), "a turn")))
             for _ in range(CROWD)]
    with api.connect():
        for client in crowd:
            client.start()
    for client in crowd:
        client.join()
    assert len(replies) == CROWD
    judge_all(judge, replies, since)


@matrix(
    "Local clients come in crowds",
    Cell("no free descriptor while clients wait", files=UNCHANGED, reply=ANSWERED,
         log=(error(API, "SSO API server accept failed"), API_LISTENING[0], API_LISTENING[2], ACCEPTED, ID_SENT)))
def test_clients_are_served_once_there_are_descriptors_again(start, judge, cell):
    """Those who waited are lost with the socket that is built anew."""
    service, api, judge_all = start
    since = service.log.mark()
    with api.connect() as first, api.connect() as second:
        service.log.wait_for(API, ACCEPTED.text, since)
        since = service.log.mark()
        second.send(frame(ID_REQUEST))
        with service.descriptors_limited_to(0):
            first.close()
            service.log.wait_for(API, "SSO API server accept failed", since)
        assert second.receive_end()
    reply = wait_until(lambda: asked(api), "a port that answers again")
    judge_all(judge, [reply], since)


def asked(api):
    """The reply, if one comes."""
    try:
        return api.exchange(ID_REQUEST)
    except (OSError, EOFError):
        return None


# --- ports

BIND_FAILED = error(API, "SSO API socket bind failed ")


def taken(world, cloud):
    """A service whose second port somebody else has; all else works."""
    port = world.reserve_port()
    port.listen()
    folder = world.new_folder("backup")
    ports = [world.new_port(), port.number]
    service = world.start(world.document(cloud.discovery_url, ports=ports, cache_folder=folder))
    service.log.wait_for(API, BIND_FAILED.text)
    service.wait_ready()
    assert service.api.token_text() == "access/1"
    return service, port, folder


@matrix("A local port is taken", Cell("port taken", log=(BIND_FAILED,), files=WRITTEN))
def test_other_port_works_while_one_is_taken(world, cloud, judge, cell):
    service, _, folder = taken(world, cloud)
    judge.log(service)
    judge.reply(None)
    judge.state(service)
    judge.files({}, files_in(folder))
    judge.status(service)


@pytest.mark.slow
@matrix(
    "A local port is taken",
    Cell("port taken, and free for the next attempt", log=(BIND_FAILED, *API_LISTENING, ID_SENT), reply=ANSWERED,
         files=WRITTEN))
def test_port_that_was_taken_is_opened_after_30_seconds(world, cloud, judge, cell):
    service, port, folder = taken(world, cloud)
    failed = service.log.wait_for(API, BIND_FAILED.text)
    port.close()
    service.log.wait_for(MANAGER, READY.text)
    again = wait_until(lambda: listening_again(service), "a second listener", 45)
    expect_waited(30, failed, again)
    judge.reply(ApiClient(port.number).exchange(ID_REQUEST))
    judge.log(service, service.log.entries().index(failed))
    judge.state(service)
    judge.files({}, files_in(folder))
    judge.status(service)


def listening_again(service):
    found = [entry for entry in service.log.entries() if entry.text == API_LISTENING[-1].text]
    return found[1] if len(found) > 1 else None
