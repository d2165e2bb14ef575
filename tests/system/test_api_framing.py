"""The local API's frames: how they may arrive, and lengths that are not meant."""

import pytest

from support.exchanges import ID_REPLY, ID_REQUEST, ID_SENT, INVALID_REQUEST, NOT_AN_OBJECT, expect_answered
from support.framing import LARGEST_PAYLOAD, frame
from support.texts import API, request_received


def test_request_and_reply_are_logged_in_order(service_at_level):
    since = service_at_level.log.mark()
    assert service_at_level.api.exchange(ID_REQUEST) == ID_REPLY
    service_at_level.expect_log([*request_received(ID_REQUEST.decode()), ID_SENT], since)


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


def test_length_0_is_the_empty_text(service_at_level):
    since = service_at_level.log.mark()
    assert service_at_level.api.exchange(b"") == NOT_AN_OBJECT
    service_at_level.expect_log([*request_received(""), INVALID_REQUEST], since)


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
