"""The local API's frames: how they may arrive, and clients that do not keep to them."""

import random
import struct

import pytest

from support.api_client import ApiClient
from support.framing import LARGEST_PAYLOAD, frame
from support.log import LEVELS, debug, error, shown
from support.texts import ACCEPTED, API, API_LISTENING, MANAGER, READY, request_processed, request_received
from support.waiting import wait_until

ID_REQUEST = b'{"request":"certificate_id"}'
ID_REPLY = b'{"status":"ok","certificate_id":"device-0001"}'
NOT_AN_OBJECT = b'{"status":"error","message":"Input is not a valid object"}'
INVALID = error(API, "Invalid request format: Input is not a valid object")
CLOSED = error(API, "SSO API connection closed while reading request")
LENGTH_UNREAD = error(API, "SSO API request read failed, read 4 bytes - message length")
WRITE_FAILED = error(API, "SSO API write failed")
ID_SENT = debug(API, f"SSO API Sending json certificate id reply {ID_REPLY.decode()}")


def size(count):
    return debug(API, f"SSO API request message size: {count}")


EMPTY_REQUEST = [*request_processed(""), INVALID]  # what a request becomes that could not be read


@pytest.fixture(scope="module", params=LEVELS)
def at_level(request, module_world):
    """A ready service at each level."""
    return module_world.start_ready(module_world.new_cloud(), request.param)


@pytest.fixture(scope="module")
def service(module_world):
    """A ready service that shows everything."""
    return module_world.start_ready(module_world.new_cloud())


def expect_answered(service):
    """Whatever happened before: the next client is served."""
    assert service.api.exchange(ID_REQUEST) == ID_REPLY


# --- well-formed frames in every shape

@pytest.mark.parametrize("level", LEVELS)
def test_listening_is_logged_in_order(world, cloud, level):
    service = world.start(world.document(cloud.discovery_url, level=level))
    service.wait_listening()
    with service.api.connect() as connection:
        connection.send(frame(b"{}"))
        connection.receive_frame()
    service.expect_log([*API_LISTENING, *request_received("{}")], only=API)


def test_request_and_reply_are_logged_in_order(at_level):
    since = at_level.log.mark()
    assert at_level.api.exchange(ID_REQUEST) == ID_REPLY
    at_level.expect_log([*request_received(ID_REQUEST.decode()), ID_SENT], since)


def test_reply_is_the_big_endian_length_and_the_text(service):
    with service.api.connect() as connection:
        connection.send(frame(ID_REQUEST))
        assert connection.receive(4 + len(ID_REPLY)) == bytes([0, 0, 0, len(ID_REPLY)]) + ID_REPLY
        assert not connection.receive_end()


def test_reply_of_one_hundred_bytes_is_announced_as_00_00_00_64(service):
    empty = b'{"status":"error","message":"unsupported request: "}'
    name = b"x" * (100 - len(empty))
    with service.api.connect() as connection:
        connection.send(frame(b'{"request":"%s"}' % name))
        reply = connection.receive(104)
        assert reply == b"\0\0\0\x64" + empty[:-2] + name + b'"}'
        assert not connection.receive_end()


@pytest.mark.parametrize("pieces", [1, 2, 3, 5, 27], ids=lambda count: f"{count} bytes each")
def test_frame_may_arrive_in_small_pieces(service, pieces):
    with service.api.connect() as connection:
        connection.send_slowly(frame(ID_REQUEST), pieces)
        assert connection.receive_frame() == ID_REPLY


@pytest.mark.parametrize("place", range(1, 4 + len(ID_REQUEST)))
def test_frame_may_be_split_anywhere(service, place):
    data = frame(ID_REQUEST)
    with service.api.connect() as connection:
        connection.send(data[:place])
        assert connection.has_nothing_for(0.002)
        connection.send(data[place:])
        assert connection.receive_frame() == ID_REPLY


def padded(length):
    """A request for the id of exactly this many bytes."""
    return ID_REQUEST + b" " * (length - len(ID_REQUEST))


@pytest.mark.parametrize("length", [28, 29, 250, 251, 252, 253, 254, 255, 256, 257, 506, 507, 1000, 65535, 65536, 65537,
                                    LARGEST_PAYLOAD - 1, LARGEST_PAYLOAD])
def test_every_length_up_to_the_limit_is_served(service, length):
    assert service.api.exchange(padded(length)) == ID_REPLY
    with service.api.connect() as connection:  # the last byte on its own
        connection.send(frame(padded(length))[:-1])
        assert connection.has_nothing_for(0.01)
        connection.send(b" " if length > len(ID_REQUEST) else b"}")
        assert connection.receive_frame() == ID_REPLY


def test_length_0_is_the_empty_text(at_level):
    since = at_level.log.mark()
    assert at_level.api.exchange(b"") == NOT_AN_OBJECT
    at_level.expect_log([*request_received(""), INVALID], since)


@pytest.mark.parametrize("payload, text", [(ID_REQUEST + b"\0garbage", ID_REQUEST.decode()), (b"\0" + ID_REQUEST, ""),
                                           (b"\0", ""), (b"{}\0" + b"\0" * 5000, "{}")],
                         ids=["behind", "before", "alone", "many"])
def test_request_ends_at_its_first_nul(service, payload, text):
    since = service.log.mark()
    reply = service.api.exchange(payload)
    expected = {ID_REQUEST.decode(): ID_REPLY, "": NOT_AN_OBJECT,
                "{}": b'{"status":"error","message":"request not specified"}'}
    assert reply == expected[text]
    assert service.log.pairs(since)[:5] == [
        (line.source, line.text) for line in request_received(text, len(payload))]


@pytest.mark.parametrize("surplus", [1, 4, 100, 219, 220, 251, 252, 1000, 100000])
def test_bytes_behind_the_frame_are_ignored(service, surplus):
    with service.api.connect() as connection:
        connection.send(frame(ID_REQUEST) + b"x" * surplus)
        assert connection.receive_frame() == ID_REPLY
        connection.receive_end()  # by a reset where bytes were left unread
    expect_answered(service)


def test_second_frame_on_a_connection_is_not_answered(service):
    with service.api.connect() as connection:
        connection.send(frame(ID_REQUEST) + frame(ID_REQUEST))
        assert connection.receive_frame() == ID_REPLY
        connection.receive_end()
    expect_answered(service)


@pytest.mark.parametrize("surplus", [b"", b"x" * 50], ids=["nothing", "bytes"])
def test_surplus_behind_an_empty_request_is_not_taken_for_its_text(service, surplus):
    since = service.log.mark()
    with service.api.connect() as connection:
        connection.send(frame(b"") + surplus)
        assert connection.receive_frame() == NOT_AN_OBJECT
    assert (API, "SSO API received request ") in service.log.pairs(since)


# --- lengths that are not meant

@pytest.mark.parametrize("announced", [LARGEST_PAYLOAD + 1, 2 * LARGEST_PAYLOAD, 0x7fffffff, 0x80000000, 0x80000001,
                                       0xfffffffb, 0xfffffffc, 0xfffffffe, 0xffffffff], ids=hex)
@pytest.mark.parametrize("sent", [b"", ID_REQUEST, b"x" * 1000], ids=["nothing", "a request", "1000 bytes"])
def test_length_over_the_limit_is_refused_without_taking_memory(service, announced, sent):
    before = service.peak_memory_kilobytes()
    with service.api.connect() as connection:
        connection.send(frame(sent, announced))
        connection.half_close()
        assert connection.receive_frame() == NOT_AN_OBJECT
        connection.receive_end()
    expect_answered(service)
    assert service.peak_memory_kilobytes() - before < 8 * 1024


def test_whole_frame_one_byte_over_the_limit_is_survived(service):
    """The client may see the refusal or, still sending, only the end."""
    with service.api.connect() as connection:
        try:
            connection.send(frame(padded(LARGEST_PAYLOAD + 1)))
            assert connection.receive_frame() == NOT_AN_OBJECT
        except (ConnectionResetError, BrokenPipeError):
            pass
    expect_answered(service)


def test_announced_bytes_that_never_come_take_no_memory(service):
    before = service.peak_memory_kilobytes()
    with service.api.connect() as connection:
        connection.send(frame(b"x", LARGEST_PAYLOAD))
        assert connection.has_nothing_for(0.05)
    expect_answered(service)
    assert service.peak_memory_kilobytes() - before < 8 * 1024


# --- clients that leave

@pytest.mark.parametrize("sent, lines", [
    (b"", [CLOSED]), (b"\0", [CLOSED]), (b"\0\0\0", [CLOSED]), (frame(b"", 5), [size(5), CLOSED]),
    (frame(b"1234", 5), [size(5), CLOSED]), (frame(b"x" * 251, 252), [size(252), CLOSED]),
    (frame(b"x" * 1000, 100000), [size(100000), CLOSED]),
], ids=["nothing", "1 byte", "3 bytes", "length only", "one byte short", "one byte short of 252", "much short"])
def test_half_closed_connection_gets_the_error_reply(at_level, sent, lines):
    since = at_level.log.mark()
    with at_level.api.connect() as connection:
        connection.send(sent)
        connection.half_close()
        assert connection.receive_frame() == NOT_AN_OBJECT
        assert not connection.receive_end()
    at_level.expect_log([ACCEPTED, *lines, *EMPTY_REQUEST], since)


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
    (frame(b"", 10), size(10).text, [size(10), error(API, "SSO API request read failed, read 0 out of 10")]),
    (frame(b"123", 10), size(10).text, [size(10), error(API, "SSO API request read failed, read 3 out of 10")]),
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


def test_reset_while_a_request_is_read_is_an_error_at_every_level(at_level):
    since = at_level.log.mark()
    connection = at_level.api.connect()
    connection.send(frame(b"123", 10))
    assert connection.has_nothing_for(0.1)  # long enough to be read: not every level shows it
    connection.reset()
    at_level.log.wait_for(API, WRITE_FAILED.text, since)
    at_level.expect_log([ACCEPTED, size(10), error(API, "SSO API request read failed, read 3 out of 10"),
                         *EMPTY_REQUEST, WRITE_FAILED], since)


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


# --- the listening socket

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


def test_no_descriptor_for_a_new_socket_is_reported_and_survived(world, cloud):
    service = world.start_ready(cloud)
    since = service.log.mark()
    with service.descriptors_limited_to(0):
        answers(service)
        service.log.wait_for(API, "SSO API socket creation failed", since)
    wait_until(lambda: answers(service), "a service that answers again")


def answers(service):
    try:
        return service.api.exchange(ID_REQUEST) == ID_REPLY
    except (OSError, EOFError):
        return False


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
