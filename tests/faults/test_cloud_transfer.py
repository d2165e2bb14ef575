"""The transfer of each of the three requests to the cloud: it does not begin, stops, does not end, or leads nowhere."""

from dataclasses import dataclass
from functools import partial

import pytest

from cells import matrix
from cloud_requests import (ASKING_TOKEN, DISCOVERING, LOOKING_UP, DiscoveryAttempt, Refused, TokenAttempt, backup_cell,
                            check_time_limit, discovery_cell, failed_discovery, failed_token, path_of, scripted,
                            token_cell)
from namespace import seeing
from support.http_server import Raw, Reply, redirect
from support.ports import LOOPBACK

HEAD = b"HTTP/1.1 200 OK\r\n"
CHUNKED = HEAD + b"Transfer-Encoding: chunked\r\n\r\n"


class Unresolved:
    """The cloud has a name that only the service's own file of hosts may know; no name server answers."""
    NAME = "cloud.invalid"

    def __init__(self, world, cloud, request):
        folder = world.new_folder("names")
        self._hosts = folder / "hosts"
        self.end()
        servers = folder / "resolv.conf"
        servers.write_text(f"nameserver {LOOPBACK}\noptions timeout:1 attempts:1\n")
        setattr(cloud, request, getattr(cloud, request).replace(LOOPBACK, self.NAME))
        self.options = {"wrapper": seeing({"/etc/hosts": self._hosts, "/etc/resolv.conf": servers})}

    def begin(self):
        self._hosts.write_text(f"{LOOPBACK} localhost\n")

    def end(self):
        self._hosts.write_text(f"{LOOPBACK} localhost {self.NAME}\n")


class RedirectedToNobody:
    """The redirect leads to a port where nobody listens."""

    def __init__(self, world, cloud, request):
        self.options = {}
        location = f"http://{LOOPBACK}:{world.new_port()}/"
        self.begin = partial(cloud.script, path_of(cloud, request), redirect(location))
        self.end = cloud.unscript


class RedirectedToItself:
    def __init__(self, _world, cloud, request):
        self.options = {}
        path = path_of(cloud, request)
        self.begin = partial(cloud.script, path, redirect(path))
        self.end = cloud.unscript


@dataclass(frozen=True)
class Flood:
    """Bytes without end, as far as the service can tell."""
    head: bytes
    piece: bytes
    count: int

    def send(self, connection, _closing):
        connection.sendall(self.head)
        for _ in range(self.count):
            connection.sendall(self.piece)


@dataclass(frozen=True)
class Drip:
    """A beginning that comes at once, then a byte a second without end."""
    beginning: bytes

    def send(self, connection, closing):
        connection.sendall(self.beginning)
        while not closing.wait(1):
            connection.sendall(b" ")


def announcing(surplus):
    """The good body with a wrong length."""
    return lambda body: Raw(HEAD + b"Content-Length: %d\r\n\r\n%s" % (len(body) + surplus, body))


def measured_as(length):
    """The good body with a length that is none."""
    return lambda body: Raw(HEAD + b"Content-Length: %s\r\n\r\n%s" % (length, body))


MEBIBYTE = bytes(2**20)
HEADER_LINES = (b"X: " + b"x" * 1019 + b"\r\n") * 1024  # 1 MiB

FAULTS = [  # (fault, libcurl's error or the status, how it is brought about)
    ("name does not resolve", "could_not_resolve", Unresolved),
    ("connection is refused", "could_not_connect", Refused),
    ("closes before the headers", "got_nothing", scripted(Raw())),
    ("resets before the headers", "receive_error", scripted(Raw(ending="reset"))),
    ("closes inside the body", "partial_file", scripted(Raw(HEAD + b'Content-Length: 5000\r\n\r\n{"data":'))),
    ("resets inside the body", "receive_error", scripted(Raw(HEAD + b"Content-Length: 5000\r\n\r\n{", "reset"))),
    ("length is too long", "partial_file", scripted(announcing(10))),
    ("length is no number", "weird_server_reply", scripted(measured_as(b"many"))),
    ("length is negative", "weird_server_reply", scripted(measured_as(b"-5"))),
    ("chunk without a size", "receive_error", scripted(Raw(CHUNKED + b"what?\r\n{}\r\n"))),
    ("chunk longer than its size", "receive_error", scripted(Raw(CHUNKED + b"1\r\n{}\r\n0\r\n\r\n"))),
    ("closes inside a chunk", "partial_file", scripted(Raw(CHUNKED + b"1000\r\n{"))),
    ("last chunk is missing", "partial_file", scripted(Raw(CHUNKED + b"2\r\n{}\r\n"))),
    ("not HTTP", "unsupported_protocol", scripted(Raw(b"hello, this is another protocol\r\n\r\n"))),
    ("status 101", 101, scripted(lambda body: Raw(b"HTTP/1.1 101 Switching Protocols\r\n\r\n" + body))),
    ("1xx then closes", "got_nothing", scripted(Raw(b"HTTP/1.1 100 Continue\r\n\r\n"))),
    ("body of 100 MiB", "write_error", scripted(Flood(HEAD + b"Content-Length: 104857600\r\n\r\n", MEBIBYTE, 100))),
    ("body of 100 MiB without a length", "write_error", scripted(Flood(HEAD + b"\r\n", MEBIBYTE, 100))),
    ("chunks of 100 MiB", "write_error",
     scripted(Flood(CHUNKED, b"100000\r\n%s\r\n" % MEBIBYTE, 100))),
    ("header line of 100 MiB", "out_of_memory", scripted(Flood(HEAD + b"X: ", b"x" * 2**20, 100))),
    ("header lines of 100 MiB", "receive_error", scripted(Flood(HEAD, HEADER_LINES, 100))),
    ("1xx without end", "receive_error", scripted(Flood(b"", b"HTTP/1.1 102 Processing\r\n\r\n" * 2**15, 100))),
    ("3xx without a location", 302, scripted(Reply(302))),
]

REDIRECTS = [
    ("redirect to itself", "too_many_redirects", RedirectedToItself),
    ("redirect to a port where nobody listens", "could_not_connect", RedirectedToNobody),
    ("redirect to a file", "unsupported_protocol", scripted(redirect("file:///etc/passwd"))),
]
NOT_FOLLOWED = [(fault, 302, script) for fault, _, script in REDIRECTS]

WAITS = [
    ("accepts and is silent", "timed_out", scripted(Raw(ending="hold"))),
    ("sends a byte of the headers a second", "timed_out", scripted(Drip(HEAD + b"X: "))),
    ("sends a byte of the body a second", "timed_out", scripted(Drip(HEAD + b"Content-Length: 9999\r\n\r\n"))),
    ("1xx then silence", "timed_out", scripted(Raw(b"HTTP/1.1 102 Processing\r\n\r\n", "hold"))),
]

WITH_BACKUP = ["name does not resolve", "connection is refused", "closes inside the body", "body of 100 MiB",
               "redirect to itself"]


def of_discovery(faults, make=discovery_cell):
    return [make(fault, *failed_discovery(outcome), script) for fault, outcome, script in faults]


def of_token(faults):
    return [token_cell(fault, failed_token(outcome), script) for fault, outcome, script in faults]


# --- what the time limit ends: all of it at once, so that it takes little more than the limit

@pytest.fixture(scope="module")
def begun(module_world):
    """The attempts by request and fault."""
    attempts = {}
    for cell in of_discovery(WAITS):
        attempts[DISCOVERING, cell.fault] = DiscoveryAttempt(module_world, cell)
    silence, = of_discovery(WAITS[:1], backup_cell)
    attempts["with a backup file"] = DiscoveryAttempt(module_world, silence, with_backup=True)
    for request in (LOOKING_UP, ASKING_TOKEN):
        for cell in of_token(WAITS):
            attempts[request, cell.fault] = TokenAttempt(module_world, cell, request)
    return attempts


@pytest.mark.slow
@pytest.mark.xdist_group("time limit of transfers")
@matrix("Discovery request: the transfer", *of_discovery(WAITS))
def test_discovery_ends_at_the_time_limit(begun, cell, judge):
    check_time_limit(begun[DISCOVERING, cell.fault], judge)


@pytest.mark.slow
@pytest.mark.xdist_group("time limit of transfers")
@matrix("Discovery request with a backup file: the transfer", *of_discovery(WAITS[:1], backup_cell))
def test_discovery_with_a_backup_file_ends_at_the_time_limit(begun, cell, judge):
    check_time_limit(begun["with a backup file"], judge)


@pytest.mark.slow
@pytest.mark.xdist_group("time limit of transfers")
@matrix("OpenID configuration: the transfer", *of_token(WAITS))
def test_lookup_ends_at_the_time_limit(begun, cell, judge):
    check_time_limit(begun[LOOKING_UP, cell.fault], judge)


@pytest.mark.slow
@pytest.mark.xdist_group("time limit of transfers")
@matrix("Token request: the transfer", *of_token(WAITS))
def test_token_request_ends_at_the_time_limit(begun, cell, judge):
    check_time_limit(begun[ASKING_TOKEN, cell.fault], judge)


# --- what is over at once

@matrix("Discovery request: the transfer", *of_discovery(FAULTS + REDIRECTS))
def test_discovery(world, cell, judge):
    DiscoveryAttempt(world, cell).check(judge)


@matrix("Discovery request with a backup file: the transfer",
        *of_discovery([row for row in FAULTS + REDIRECTS if row[0] in WITH_BACKUP], backup_cell))
def test_discovery_with_a_backup_file(world, cell, judge):
    DiscoveryAttempt(world, cell, with_backup=True).check(judge)


@matrix("OpenID configuration: the transfer", *of_token(FAULTS + REDIRECTS))
def test_lookup(world, cell, judge):
    TokenAttempt(world, cell, LOOKING_UP).check(judge)


@matrix("Token request: the transfer", *of_token(FAULTS + NOT_FOLLOWED))
def test_token(world, cell, judge):
    TokenAttempt(world, cell, ASKING_TOKEN).check(judge)
