"""Few descriptors, and no more address space than the service has already."""

import re
import resource

from cells import Cell, matrix
from machine import judge_all

from support.curl_text import COULD_NOT_CONNECT, curl_text
from support.exchanges import ID_REPLY, ID_REQUEST, NOT_AN_OBJECT, TOKEN_REFUSED, token_request
from support.framing import frame
from support.log import error
from support.texts import API, CLIENT, READY, token_failed, token_sent

TOKEN = r'{"status":"ok","token":"access\/%d"}'
LARGE_REQUEST = b'{"request":"%s"}' % (b"x" * 900000)
UNKNOWN_REQUEST = b'{"status":"error","message":"unsupported request: xxx'
UNLIMITED = resource.RLIM_INFINITY


@matrix(
    "Descriptors",
    Cell("at most 16 descriptors", log=(READY, token_sent(TOKEN % 3)), reply=TOKEN % 3, script=16))
def test_few_descriptors(cell, judge, world, cloud):
    service = world.start(world.document(cloud.discovery_url, ports=[world.new_port() for _ in range(3)]),
                          wrapper=["prlimit", f"--nofile={cell.script}"]).wait_ready()
    service.wait_listening(service.section["api_providers"][-1]["port"])
    for number in (1, 2):
        assert service.api.token_text(f"scope-{number}") == f"access/{number}"
    judge_all(judge, service, service.api.exchange(token_request()))


@matrix(
    "Descriptors run out while the service runs",
    Cell("no descriptor for a transfer", reply=TOKEN_REFUSED.decode(),
         log=(error(CLIENT, "curl_easy_perform() failed: {could_not_connect}"), token_failed())))
def test_no_descriptor_for_a_transfer(cell, judge, world, cloud):
    service = world.start_ready(cloud)
    assert service.api.token_text() == "access/1"
    request = frame(token_request("next").encode())
    since = service.log.mark()
    with service.api.connect() as connection:
        connection.send(request[:20])
        service.log.wait_for(API, re.compile("SSO API request message size: .*"), since)
        with service.descriptors_limited_to(service.lowest_free_descriptor()):
            connection.send(request[20:])
            reply = connection.receive_frame()
    assert service.api.token_text("next") == "access/2"
    judge_all(judge, service, reply, since, could_not_connect=curl_text(COULD_NOT_CONNECT))


def taken_kilobytes(service):
    with open(f"/proc/{service.process.pid}/status") as status:
        return int(re.search(r"VmPeak:\s+(\d+) kB", status.read()).group(1))


@matrix(
    "Address space at the start",
    Cell("as much address space as it takes", log=(READY, token_sent(TOKEN % 2)), reply=TOKEN % 2, script=256),
    Cell("address space for one large request", log=(READY, token_sent(TOKEN % 2)), reply=TOKEN % 2, script=4096))
def test_little_address_space_at_the_start(cell, judge, world, cloud):
    free = world.start_ready(cloud)
    assert free.api.token_text() == "access/1"
    enough = taken_kilobytes(free) + cell.script
    service = world.start(world.document(cloud.discovery_url), wrapper=["prlimit", f"--as={enough * 1024}"])
    service.wait_ready()
    judge_all(judge, service, service.api.exchange(token_request()))


@matrix(
    "Address space gets short while the service runs, and is given back",
    *(Cell(fault, log=(error(API, "SSO API request abandoned: std::bad_alloc"), token_sent("{token}")),
           reply="{token}", script=kilobytes)
      for fault, kilobytes in (("limit below what the process has", -4096), ("limit at what the process has", 0),
                               ("limit half a mebibyte above what the process has", 512))))
def test_address_space_gets_short(cell, judge, world, cloud):
    """What there is no memory for is refused, or loses its connection; all else goes on."""
    service = world.start_ready(cloud)
    service.api.token_text()
    limit = (taken_kilobytes(service) + cell.script) * 1024
    resource.prlimit(service.process.pid, resource.RLIMIT_AS, (limit, UNLIMITED))
    lost = 0
    for number in range(10):
        for request, right in [(LARGE_REQUEST, UNKNOWN_REQUEST), (token_request(f"scope-{number}"), b'{"status":"ok",'),
                               (ID_REQUEST, ID_REPLY), ("{", NOT_AN_OBJECT)]:
            lost += is_lost(service, request, right)
    assert lost > 0, "the limit was none"
    resource.prlimit(service.process.pid, resource.RLIMIT_AS, (UNLIMITED, UNLIMITED))
    assert not is_lost(service, LARGE_REQUEST, UNKNOWN_REQUEST)
    reply = service.api.exchange(token_request("last"))
    judge_all(judge, service, reply, token=re.compile(r'\{"status":"ok","token":"access\\/\d+"\}'))


def is_lost(service, request, right):
    try:
        reply = service.api.exchange(request)
    except (OSError, EOFError):
        return True
    assert reply.startswith((right, b'{"status":"error","message":"std::bad_alloc"}', TOKEN_REFUSED)), reply
    return not reply.startswith(right)
