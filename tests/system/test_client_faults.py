"""The command sso-client against whatever may sit on the port, and with an output that cannot be written."""

import contextlib
import signal
import socket
import time

import pytest

from support.client_command import Outcome, failure, success
from support.exchanges import ID_REPLY
from support.fake_service import FakeService
from support.framing import LARGEST_PAYLOAD, frame
from support.http_server import Raw
from support.ports import LOOPBACK
from support.waiting import DEADLINE_SECONDS, MARGIN_SECONDS

SHORT_LIMIT = "0.3"
TOO_LONG = str(10 * DEADLINE_SECONDS)  # for faults that have to be found before any limit
REPLY = frame(ID_REPLY)
TOKEN_BEGIN, TOKEN_END = b'{"status":"ok","token":"', b'"}'


def token_reply(size):
    """A reply with a payload of this size, and its token."""
    token = b"t" * (size - len(TOKEN_BEGIN + TOKEN_END))
    return frame(TOKEN_BEGIN + token + TOKEN_END), token.decode()


def ask(client, answer, *arguments, limit=TOO_LONG):
    """What the command does about one answer, and the port that it was given."""
    with FakeService(answer) as fake:
        return client.ask(fake.port, *(arguments or ["certificate-id"]), "--timeout", limit), fake.port


def unreachable(port, reason="Connection refused"):
    return failure(3, f"cannot connect to port {port}: {reason}")


def closed(port):
    return failure(7, f"port {port} closed the connection before its reply was complete")


def malformed(port):
    return failure(6, f"malformed reply from port {port}: is it the service's?")


def timed_out(port, limit=SHORT_LIMIT):
    return failure(4, f"timed out: no reply from port {port} within {limit} seconds")


# --- no connection, no reply

@pytest.mark.parametrize("arguments", [["token", "a"], ["data"], ["certificate-id"], ["reset"], ["ping"]], ids=str)
def test_nothing_listens(client, world, arguments):
    port = world.new_port()
    assert client.ask(port, *arguments, "--timeout", TOO_LONG) == unreachable(port)
    assert client.ask(port, *arguments, "--json", "--timeout", TOO_LONG) == unreachable(port)


@contextlib.contextmanager
def taken_up_listener():
    """A port whose queue of connections is full, so that a further one is not even made."""
    with contextlib.ExitStack() as opened:
        listener = opened.enter_context(socket.create_server((LOOPBACK, 0), backlog=0))
        for _ in range(4):
            waiting = opened.enter_context(socket.socket())
            waiting.setblocking(False)
            waiting.connect_ex(listener.getsockname())
        yield listener.getsockname()[1]


def expect_within_limit(port, ask_command):
    started = time.monotonic()
    assert ask_command() == timed_out(port)
    assert float(SHORT_LIMIT) <= time.monotonic() - started < MARGIN_SECONDS


def test_connection_that_does_not_come_about(client):
    with taken_up_listener() as port:
        expect_within_limit(port, lambda: client.ask(port, "ping", "--timeout", SHORT_LIMIT))


@pytest.mark.parametrize("answer", [
    Raw(ending="hold"), Raw(REPLY[:1], "hold"), Raw(REPLY[:4], "hold"), Raw(REPLY[:-1], "hold"),
    Raw(frame(b"", 1), "hold"), Raw(frame(b"{", LARGEST_PAYLOAD), "hold"),
    Raw(token_reply(10000)[0], "hold", pause=0.01),
], ids=["silent", "in the length", "at the payload", "before the last byte", "length only", "large", "dribble"])
def test_reply_that_does_not_end(client, answer):
    with FakeService(answer) as fake:
        expect_within_limit(fake.port, lambda: client.ask(fake.port, "certificate-id", "--timeout", SHORT_LIMIT))


def test_byte_a_second(client):
    with FakeService(Raw(REPLY, pause=1)) as fake:
        started = time.monotonic()
        assert client.ask(fake.port, "ping", "--timeout", "2.5") == timed_out(fake.port, "2.5")
        assert 2.5 <= time.monotonic() - started < 2.5 + MARGIN_SECONDS


def test_slow_reply_within_the_limit(client):
    assert ask(client, Raw(REPLY, pause=0.005))[0] == success("device-0001")


@pytest.mark.parametrize("ending", ["close", "reset"])
def test_connection_that_ends_at_any_byte_of_the_reply(client, ending):
    for count in range(len(REPLY)):
        outcome, port = ask(client, Raw(REPLY[:count], ending))
        assert outcome == closed(port), f"after {count} bytes"


def test_connection_that_is_reset_at_once(client):
    """Before the request is sent, and at times before the command has seen that there is a connection."""
    for _ in range(20):
        with FakeService(Raw(ending="reset"), takes_request=False) as fake:
            assert client.ask(fake.port, "ping") in (
                closed(fake.port), unreachable(fake.port, "Connection reset by peer"))


# --- replies that are none

MALFORMED = {
    "token": [
        b"", b" ", b"hello", b"{", b"{}", b"[]", b"[" * 100000, b'{"a":' * 100000, b"null", b'"ok"', b"\0",
        b"\xff" * 100, b'{"status":"ok"}', b'{"status":"ok","token":5}', b'{"status":"ok","token":null}',
        b'{"status":"ok","token":["a"]}', b'{"status":"ok","Token":"a"}', b'{"status":"ok","certificate_id":"a"}',
        b'{"token":"a"}', b'{"status":"OK","token":"a"}', b'{"status":1,"token":"a"}', b'{"status":"","token":"a"}',
        b'{"status":"ok","status":"ok","token":"a"}', b'{"status":"ok","token":"a","token":"a"}',
        b'{"status":"ok","token":"a"', b'{"status":"ok","token":"a"}}', b'{"status":"ok","token":"a"}{}',
        b'{"status":"ok","token":"a",}', b'{"status":"ok","token":"a"}\0', b'{"status":"ok","token":"a\0b"}',
        b'{"status":"ok","token":"a\\u0000b"}', b'{"status":"ok","token":"\\ud800"}',
        b'{"status":"ok","token":"\\udc00\\ud800"}', b'{"status":"ok","token":"\\x"}', b"{'status':'ok','token':'a'}",
        b'{"status":"error"}', b'{"status":"error","message":5}', b'{"status":"error","token":"a"}',
        b'{"status":"error","message":"\\ud800"}', b'{"status":"warning","message":"a","token":"a"}',
        b'\xef\xbb\xbf{"status":"ok","token":"a"}', b'{"status":"ok","token":""}',
    ],
    "data": [
        b'{"status":"ok"}', b'{"status":"ok","discovery_data":"{}"}', b'{"status":"ok","discovery_data":[]}',
        b'{"status":"ok","discovery_data":null}', b'{"status":"ok","discovery_data":{"a":1,}}',
        b'{"status":"ok","discovery_data":{"a":"\0"}}', b'{"status":"ok","a":"\0","discovery_data":{}}',
        b'{"status":"ok","discovery_data":{},"discovery_data":{}}',
    ],
    "certificate-id": [b'{"status":"ok"}', b'{"status":"ok","certificate_id":""}', b'{"status":"ok","certificate_id":5}', b'{"status":"ok","token":"a"}'],
    "reset": [b"", b"{}", b"ok", b'{"status":"done"}', b'{"status":true}', b'{"status":"ok"} x'],
    "ping": [b'{"status":"ok"}', b'{"status":"ok","certificate_id":null}', b"HTTP/1.1 400 Bad Request\r\n\r\n"],
}


@pytest.mark.parametrize("request_name, payload", [(name, row) for name, rows in MALFORMED.items() for row in rows],
                         ids=lambda value: repr(value[:60]))
def test_reply_that_is_none(client, request_name, payload):
    arguments = [request_name, *(["a"] if request_name == "token" else [])]
    for option in ([], ["--json"]):
        outcome, port = ask(client, Raw(frame(payload)), *arguments, *option)
        assert outcome == malformed(port)


@pytest.mark.parametrize("answer", [
    Raw(b"\xff\xff\xff\xff", "hold"), Raw(b"\x80\0\0\0", "hold"), Raw(b"\0\x10\0\x01", "hold"),
    Raw(token_reply(LARGEST_PAYLOAD + 1)[0], "hold"), Raw(b"HTTP/1.1 400 Bad Request\r\n\r\n", "hold"),
    Raw(b"220 ready\r\n", "hold"),
], ids=["4 GiB", "2 GiB", "1 MiB and a byte", "all of it", "HTTP", "a greeting"])
def test_length_that_is_too_large_is_refused_at_once(client, answer):
    outcome, port = ask(client, answer, "token", "a")
    assert outcome == malformed(port)


# --- replies that are unusual and good

def test_largest_reply(client):
    reply, token = token_reply(LARGEST_PAYLOAD)
    assert ask(client, Raw(reply), "token", "a")[0] == success(token)


def test_deeply_nested_data(client):
    data = '{"a":' + "[" * 500000 + "]" * 500000 + "}"
    reply = frame(b'{"status":"ok","discovery_data":%s}' % data.encode())
    assert ask(client, Raw(reply), "data")[0] == success(data)
    assert ask(client, Raw(reply), "data", "--json")[0] == success('{"status":"ok","discovery_data":%s}' % data)


def test_bytes_behind_the_reply_are_ignored(client):
    assert ask(client, Raw(REPLY + b"surplus", "hold"))[0] == success("device-0001")


@pytest.mark.parametrize("text, plain, as_json", [
    (b"a\\/b", "a/b", "a/b"), (b"\\u00e9\\ud83d\\ude00", "\u00e9\U0001f600", "\u00e9\U0001f600"),
    (b'\\"\\\\', '"\\', '\\"\\\\'), (b"\\b\\f\\t\\u0001", "\b\f\t\x01", "\\u0008\\u000c\\u0009\\u0001"),
    (b"\x01\x1f\x7f", "\x01\x1f\x7f", "\\u0001\\u001f\x7f"), (b"\xff", "\udcff", "\udcff"),
    (b"%s%n", "%s%n", "%s%n"),
], ids=str)
def test_texts_of_replies(client, text, plain, as_json):
    answer = Raw(frame(b' {"a":[{"token":"x"}],\n"t\\u006fken" : "%s", "st\\u0061tus":"\\u006fk"} ' % text))
    assert ask(client, answer, "token", "a")[0] == success(plain)
    assert ask(client, answer, "token", "a", "--json")[0] == success('{"status":"ok","token":"%s"}' % as_json)


@pytest.mark.parametrize("message, shown", [
    (b"100%s %n \\/", "100%s %n /"), (b"a\\nb\nc\\u001b[31m\x1b\x7f", "a?b?c?[31m??"), (b"\xff\\u20ac", "\udcff\u20ac"),
    (b"\\u0080\xc2\x9b31m\\u009f\xc2", "????31m??\udcc2"), (b"\\u00a0\xc3\x9b", "\u00a0\u00db"),
    (b"", ""), (b"a" * 100000, "a" * 100000)], ids=lambda value: repr(value[:20]))
def test_message_of_a_refusal_stays_on_its_line(client, message, shown):
    answer = Raw(frame(b'{"status":"error","message":"%s"}' % message))
    assert ask(client, answer)[0] == failure(5, f"refused by the service: {shown}")


# --- an output that cannot be written

NO_SPACE = "No space left on device"
CLOSED_OUTPUT = "Bad file descriptor"


@pytest.mark.parametrize("arguments", [
    ["token", "a"], ["token", "a", "--json"], ["data"], ["data", "--json"], ["certificate-id"],
    ["certificate-id", "--json"], ["ping"], ["ping", "--json"], ["reset", "--json"]], ids=" ".join)
def test_result_that_cannot_be_written(client, service, arguments):
    words = " ".join(arguments)
    for output, reason in [(">&-", CLOSED_OUTPUT), (">/dev/full", NO_SPACE)]:
        assert client.in_bash(f"sso-client {words} {output}", service.api.port) == failure(
            1, f"cannot write the result: {reason}")


@pytest.mark.parametrize("options", ["", "--json"])
def test_long_result_that_cannot_be_written(client, options):
    with FakeService(Raw(token_reply(LARGEST_PAYLOAD)[0])) as fake:
        assert client.in_bash(f"sso-client token a {options} >/dev/full", fake.port) == failure(
            1, f"cannot write the result: {NO_SPACE}")


@pytest.mark.parametrize("option", ["--help", "--version"])
@pytest.mark.parametrize("output", [">&-", ">/dev/full"])
def test_help_that_cannot_be_written(client, option, output):
    assert client.in_bash(f"sso-client {option} {output}", 1) == failure(1, "cannot write to standard output")


def test_nothing_to_write(client, service):
    since = service.log.mark()
    assert client.in_bash("sso-client reset >&-", service.api.port) == Outcome(0, "", "")
    service.wait_ready(since)


def test_all_descriptors_closed(client, service):
    """The connection then has a number that a stream has otherwise; nothing is written into it."""
    assert client.in_bash("sso-client ping <&- >&- 2>&-", service.api.port) == Outcome(1, "", "")
    with FakeService(Raw(b"", "close")) as fake:
        assert client.in_bash("sso-client ping <&- >&- 2>&-", fake.port) == Outcome(7, "", "")
        assert len(fake.requests) == 1


@pytest.mark.parametrize("before, status, stderr", [
    ("", 128 + signal.SIGPIPE, ""), ("trap '' PIPE;", 1, "sso-client: cannot write the result: Broken pipe\n"),
], ids=["by signal", "signal ignored"])
def test_reader_that_leaves(client, before, status, stderr):
    """As any other program: SIGPIPE ends it, or the failure to write does."""
    with FakeService(Raw(token_reply(LARGEST_PAYLOAD)[0])) as fake:
        script = before + ' sso-client token a | head -c 1; echo " ${PIPESTATUS[0]}"'
        assert client.in_bash(script, fake.port) == Outcome(0, f"t {status}\n", stderr)


def test_data_into_head(client, service):
    assert client.in_bash("sso-client data | head -c 1", service.api.port) == Outcome(0, "{", "")
