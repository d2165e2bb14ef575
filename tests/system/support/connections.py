"""What the scripted servers have in common: a listener on a port of its own, and a thread for each connection."""

import socket
import threading

from .ports import LOOPBACK, ReservedPort


class ConnectionServer:
    """Calls `_converse(connection)` of the class that derives from it, on a thread a connection."""

    def __init__(self):
        self._closing = threading.Event()
        self._reserved = ReservedPort()
        self.port = self._reserved.number
        self.listen()

    def listen(self):
        """Once more, after refuse()."""
        self._listener = socket.create_server((LOOPBACK, self.port), backlog=64)
        threading.Thread(target=self._accept, args=(self._listener,), daemon=True).start()

    def refuse(self):
        """Refuse new connections; nobody else is given the port."""
        try:
            self._listener.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass  # closed before
        self._listener.close()

    def close(self):
        """Let go of connections that are held as well. May be called again."""
        self._closing.set()
        self.refuse()
        self._reserved.close()

    def _accept(self, listener):
        while not self._closing.is_set():
            try:
                connection, _ = listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        with connection:
            connection.settimeout(60)
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            try:
                self._converse(connection)
            except (OSError, EOFError):
                pass  # the client left first; what it asked is on record


class DeafListener:
    """Lets nobody in: clients wait in its queue or, once that is full, are neither let into it nor refused."""

    def __init__(self, port=0, full=False):
        self._listener = socket.create_server((LOOPBACK, port), backlog=0 if full else 16)
        self.port = self._listener.getsockname()[1]
        self._waiting = [self._waiting_client() for _ in range(4 if full else 0)]

    def close(self):
        for each in [self._listener, *self._waiting]:
            each.close()

    def _waiting_client(self):
        client = socket.socket()
        client.setblocking(False)
        client.connect_ex((LOOPBACK, self.port))
        return client
