"""A scripted local API: it takes one request frame a connection and answers with whatever bytes it is told."""

import socket
import threading

from .framing import read_frame
from .ports import LOOPBACK


class FakeService:
    def __init__(self, answer, takes_request=True):
        """The answer is one of http_server's: it has `send(connection, closing)`."""
        self.requests = []  # the payloads, in the order of arrival
        self._answer = answer
        self._takes_request = takes_request
        self._closing = threading.Event()
        self._listener = socket.create_server((LOOPBACK, 0), backlog=16)
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        """Let go of connections that are held as well."""
        self._closing.set()
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()

    def _accept(self):
        while not self._closing.is_set():
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        with connection:
            connection.settimeout(60)
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            try:
                if self._takes_request:
                    self.requests.append(read_frame(connection))
                self._answer.send(connection, self._closing)
            except (OSError, EOFError):
                pass  # the client left first
