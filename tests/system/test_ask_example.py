"""docs/examples/ask.py: a client of the local API in Python, against the real service and against faults."""

import subprocess
import sys

import pytest

from support.client_command import Outcome, client_environment, run, success
from support.client_package import PROJECT
from support.exchanges import ID_REPLY, ID_REQUEST
from support.fake_service import FakeService
from support.framing import LARGEST_PAYLOAD, frame
from support.http_server import Raw

ASK = PROJECT / "docs" / "examples" / "ask.py"
REPLY = frame(ID_REPLY)
CLOSED = "the service closed the connection before its reply was complete"
PATIENCE = "PATIENCE_SECONDS = 120"


def ask(port, request=ID_REQUEST.decode(), script=ASK):
    return run([sys.executable, script, port, request])


def failure(message):
    return Outcome(1, "", f"ask.py: {message}\n")


@pytest.fixture
def impatient(tmp_path):
    """The same with less patience."""
    text = ASK.read_text()
    assert text.count(PATIENCE) == 1
    (tmp_path / "ask.py").write_text(text.replace(PATIENCE, "PATIENCE_SECONDS = 0.3"))
    return tmp_path / "ask.py"


def test_every_request(service):
    port = service.api.port
    token = service.api.exchange('{"request":"token","scope":"telemetry"}').decode()
    assert ask(port, '{"request":"token","scope":"telemetry"}') == success(token)
    assert ask(port, '{"request":"data"}') == success(service.api.exchange('{"request":"data"}').decode())
    assert ask(port) == success(ID_REPLY.decode())
    assert ask(port, '{"request":"\u20ac"}') == success('{"status":"error","message":"unsupported request: \u20ac"}')


@pytest.mark.parametrize("arguments", [
    [], ["5055"], ["abc", "{}"], ["", "{}"], ["0", "{}"], ["65536", "{}"], ["-1", "{}"], ["\u0662", "{}"],
    ["\u00b2", "{}"], ["5055", "{}", "{}"]], ids=str)
def test_usage(arguments):
    outcome = run([sys.executable, ASK, *arguments])
    assert (outcome.status, outcome.stdout) == (1, "")
    assert "ask.py PORT REQUEST" in outcome.stderr and "Traceback" not in outcome.stderr


def test_nothing_listens(world):
    assert ask(world.new_port()) == failure("[Errno 111] Connection refused")


@pytest.mark.parametrize("data, message", [
    (b"", CLOSED), (REPLY[:3], CLOSED), (REPLY[:4], CLOSED), (REPLY[:-1], CLOSED),
    (frame(b"", LARGEST_PAYLOAD + 1), "the reply is too long: 1048577 bytes"),
    (b"\xff\xff\xff\xff", "the reply is too long: 4294967295 bytes"), (frame(b"\xff"), "the reply is not UTF-8"),
], ids=repr)
def test_fault(data, message):
    with FakeService(Raw(data)) as fake:
        assert ask(fake.port) == failure(message)
        assert fake.requests == [ID_REQUEST]


def test_reset():
    with FakeService(Raw(REPLY[:-1], "reset")) as fake:
        assert ask(fake.port) == failure("[Errno 104] Connection reset by peer")


@pytest.mark.parametrize("answer", [
    Raw(ending="hold"), Raw(REPLY[:-1], "hold"), Raw(frame(b"a" * 10000), pause=0.01),
], ids=["silent", "short", "dribble"])
def test_reply_that_does_not_end(impatient, answer):
    with FakeService(answer) as fake:
        assert ask(fake.port, script=impatient) == failure("timed out")


def test_largest_reply():
    text = "a" * LARGEST_PAYLOAD
    with FakeService(Raw(frame(text.encode()))) as fake:
        assert ask(fake.port) == success(text)


def test_reply_that_cannot_be_written(service):
    with open("/dev/full", "wb") as full:
        ended = subprocess.run([sys.executable, ASK, str(service.api.port), ID_REQUEST], env=client_environment(),
                               stdout=full, stderr=subprocess.PIPE, timeout=20, check=False)
    assert (ended.returncode, ended.stderr) == (1, b"ask.py: [Errno 28] No space left on device\n")
