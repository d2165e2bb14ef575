"""The process is halted (SIGSTOP) and goes on (SIGCONT)."""

import signal
import time
from pathlib import Path

import pytest
from cells import ENDED, Cell, matrix
from machine import judge_all

from support.exchanges import ID_REPLY, ID_REQUEST, ID_SENT, token_request
from support.fake_cloud import TOKEN_PATH
from support.framing import frame
from support.http_server import Reply
from support.texts import READY, STOPPED, retrying, token_sent, without_cache
from support.waiting import MARGIN_SECONDS, wait_until

HALT_SECONDS = 1.5  # longer than the service's longest pause when it is ready
TOKEN = r'{"status":"ok","token":"access\/1"}'


def halt(service):
    service.send_signal(signal.SIGSTOP)
    status = Path(f"/proc/{service.process.pid}/stat")
    wait_until(lambda: status.read_text().rpartition(") ")[2].startswith("T"), "a halted process")


def go_on(service):
    time.sleep(HALT_SECONDS)
    service.send_signal(signal.SIGCONT)


def idle(service, _):
    halt(service)
    with service.api.connect() as connection:
        connection.send(frame(ID_REQUEST))
        assert connection.has_nothing_for(0.2)
        go_on(service)
        return connection.receive_frame()


def inside_a_request(service, _):
    request = frame(ID_REQUEST)
    with service.api.connect() as connection:
        connection.send(request[:20])
        halt(service)
        connection.send(request[20:])
        go_on(service)
        return connection.receive_frame()


def inside_a_transfer(service, cloud):
    gate = cloud.hold(TOKEN_PATH)
    with service.api.connect() as connection:
        connection.send(frame(token_request().encode()))
        gate.wait_arrived()
        halt(service)
        gate.release()
        go_on(service)
        return connection.receive_frame()


@matrix(
    "Halted while the service is ready",
    Cell("halted when idle", log=(ID_SENT,), reply=ID_REPLY.decode(), script=idle),
    Cell("halted inside a request", log=(ID_SENT,), reply=ID_REPLY.decode(), script=inside_a_request),
    Cell("halted inside a transfer", log=(token_sent(TOKEN),), reply=TOKEN, script=inside_a_transfer))
def test_halted_when_ready(cell, judge, world, cloud):
    service = world.start_ready(cloud)
    judge_all(judge, service, cell.script(service, cloud))


@matrix(
    "Halted while the service asks the cloud",
    Cell("halted inside discovery", log=(READY,), reply=ID_REPLY.decode()))
def test_halted_inside_discovery(cell, judge, world, cloud):
    gate = cloud.hold(cloud.discovery_path)
    service = world.start(world.document(cloud.discovery_url))
    gate.wait_arrived()
    halt(service)
    gate.release()
    go_on(service)
    service.wait_ready()
    judge_all(judge, service, service.api.exchange(ID_REQUEST))


@pytest.mark.slow
@matrix(
    "Halted while the next attempt is waited for",
    Cell("halted in the wait", log=(retrying("{reason}"), READY), reply=ID_REPLY.decode()))
def test_halted_in_the_wait_for_the_next_attempt(cell, judge, world, cloud):
    """The wait goes on meanwhile: the attempt is as late as it would have been."""
    cloud.script(cloud.discovery_path, Reply(503), None)
    service = world.start(world.document(cloud.discovery_url))
    service.wait_failed()
    failed = time.monotonic()
    halt(service)
    go_on(service)
    service.log.wait_for(READY.source, READY.text, seconds=45)
    assert 29 < time.monotonic() - failed < 30 + MARGIN_SECONDS
    service.wait_ready()
    reason = without_cache(f"Couldn't retrieve discovery data from {cloud.discovery_url}. Curl returned: 503")
    judge_all(judge, service, service.api.exchange(ID_REQUEST), reason=reason)


@matrix(
    "Stopped while halted",
    Cell("stop signal to a halted process", log=(*STOPPED,), state=ENDED))
def test_stopped_while_halted(cell, judge, world, cloud):
    service = world.start_ready(cloud)
    halt(service)
    service.send_signal()
    go_on(service)
    service.wait_exit(2)
    judge_all(judge, service)
