"""The local API's client side: whole exchanges, and raw connections for ill-behaved clients."""

import json
import socket
import struct
import time

from .framing import frame
from .http_server import reset_on_close
from .ports import LOOPBACK
from .waiting import DEADLINE_SECONDS


class Connection:
    """One connection, used byte by byte."""

    def __init__(self, port, small_buffers=False, patience=DEADLINE_SECONDS):
        self._patience = patience
        self._socket = socket.socket()
        self._socket.settimeout(patience)
        if small_buffers:  # so that the other side cannot leave a long reply with the kernel and go on
            self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
            self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG, 536)
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._socket.connect((LOOPBACK, port))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def send(self, data):
        self._socket.sendall(data)

    def send_slowly(self, data, size=1, pause=0.002):
        for i in range(0, len(data), size):
            self._socket.sendall(data[i:i + size])
            time.sleep(pause)

    def half_close(self):
        self._socket.shutdown(socket.SHUT_WR)

    def close(self):
        self._socket.close()

    def reset(self):
        reset_on_close(self._socket)
        self._socket.close()

    def has_nothing_for(self, seconds):
        """True when neither a byte nor an end arrives in that time."""
        self._socket.settimeout(seconds)
        try:
            self._socket.recv(1, socket.MSG_PEEK)
            return False
        except TimeoutError:
            return True
        finally:
            self._socket.settimeout(self._patience)

    def receive(self, count):
        data = b""
        while len(data) < count:
            piece = self._socket.recv(count - len(data))
            if not piece:
                raise EOFError(f"closed after {len(data)} of {count} bytes: {data[:100]!r}")
            data += piece
        return data

    def receive_frame(self):
        return self.receive(struct.unpack(">I", self.receive(4))[0])

    def receive_end(self):
        """Wait for the end of the connection; True when it came as a reset."""
        try:
            rest = self._socket.recv(1)
        except ConnectionResetError:
            return True
        assert rest == b"", f"a byte {rest!r} after the reply"
        return False


class ApiClient:
    """Well-behaved requests to one port, one connection each."""

    def __init__(self, port, patience=DEADLINE_SECONDS):
        self.port = port
        self._patience = patience

    def connect(self, small_buffers=False):
        return Connection(self.port, small_buffers, self._patience)

    def exchange(self, payload):
        """Send one request, given as text or bytes; return the reply's payload as it came."""
        with self.connect() as connection:
            connection.send(frame(payload.encode() if isinstance(payload, str) else payload))
            reply = connection.receive_frame()
            assert not connection.receive_end(), "the connection was reset after the reply"
        return reply

    def request(self, name, **members):
        return json.loads(self.exchange(json.dumps({"request": name, **members})))

    def token(self, scope="device"):
        return self.request("token", scope=scope)

    def token_text(self, scope="device"):
        reply = self.token(scope)
        assert reply["status"] == "ok", reply
        return reply["token"]


def hammer(port, requests, over):
    """One request after the other, whether there is somebody to answer them or not."""
    client = ApiClient(port)
    while not over.is_set():
        for request in requests:
            try:
                client.exchange(request)
            except (OSError, EOFError, AssertionError):
                over.wait(0.002)
            if over.is_set():
                return
