"""A small threaded HTTP server on raw sockets: it records every request byte for byte and answers as scripted."""

import json
import socket
import struct
import threading
from dataclasses import dataclass, field

from .connections import ConnectionServer


@dataclass(frozen=True)
class Request:
    method: str
    target: str
    version: str
    headers: tuple  # (name, value) pairs in the order of arrival
    body: bytes
    raw: bytes

    def header(self, name):
        values = [value for key, value in self.headers if key.lower() == name.lower()]
        assert len(values) == 1, f"expected one header {name}, got {self.headers}"
        return values[0]


@dataclass(frozen=True)
class Reply:
    """An ordinary answer, complete and with a true length."""
    status: int = 200
    body: object = b""
    headers: tuple = ()

    def send(self, connection, _closing):
        body = as_bytes(self.body)
        head = [f"HTTP/1.1 {self.status} Scripted", *(f"{name}: {value}" for name, value in self.headers)]
        if self.status != 204:
            head.append(f"Content-Length: {len(body)}")
        head.append("Connection: close")
        connection.sendall("\r\n".join(head).encode() + b"\r\n\r\n" + (b"" if self.status == 204 else body))


@dataclass(frozen=True)
class Raw:
    """Bytes as they stand, then an end: "close", "reset", or "hold" the connection open without another byte."""
    data: bytes = b""
    ending: str = "close"
    pause: float = 0  # between two bytes; 0 sends everything at once

    def send(self, connection, closing):
        for piece in ([self.data[i:i + 1] for i in range(len(self.data))] if self.pause else [self.data]):
            connection.sendall(piece)
            if self.pause and closing.wait(self.pause):
                return
        if self.ending == "hold":
            closing.wait()
        if self.ending == "reset":
            reset_on_close(connection)


@dataclass
class Gate:
    """An answer that waits until the test lets it go."""
    reply: object
    arrived: threading.Event = field(default_factory=threading.Event)
    released: threading.Event = field(default_factory=threading.Event)

    def send(self, connection, closing):
        self.arrived.set()
        while not self.released.wait(0.01):
            if closing.is_set():
                return
        self.reply.send(connection, closing)

    def wait_arrived(self, seconds=20):
        assert self.arrived.wait(seconds), "the request that was to be held did not arrive"

    def release(self):
        self.released.set()


def as_bytes(body):
    if isinstance(body, bytes):
        return body
    return (body if isinstance(body, str) else json.dumps(body)).encode()


def redirect(location, status=302):
    return Reply(status, b"", (("Location", location),))


def reset_on_close(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


class HttpServer(ConnectionServer):
    """`answer(request)` is called on a thread a connection and gives the reply; one request a connection."""

    def __init__(self, answer):
        self._answer = answer
        self.requests = []
        super().__init__()

    def _converse(self, connection):
        request = _read_request(connection)
        if request:
            self.requests.append(request)
            self._answer(request).send(connection, self._closing)


def _read_request(connection):
    data = b""
    while b"\r\n\r\n" not in data:
        piece = connection.recv(65536)
        if not piece:
            return None
        data += piece
    head, _, body = data.partition(b"\r\n\r\n")
    first, *lines = head.decode("latin-1").split("\r\n")
    headers = tuple(tuple(line.split(": ", 1)) for line in lines)
    lower = {name.lower(): value for name, value in headers}
    if lower.get("expect", "").lower() == "100-continue":
        connection.sendall(b"HTTP/1.1 100 Continue\r\n\r\n")
    length = int(lower.get("content-length", 0))
    while len(body) < length:
        piece = connection.recv(65536)
        if not piece:
            break
        body += piece
    method, target, version = first.split(" ", 2)
    return Request(method, target, version, headers, body, head + b"\r\n\r\n" + body)
