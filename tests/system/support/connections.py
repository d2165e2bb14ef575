"""What the scripted servers have in common: a listener on a port of its own, and a thread for each connection."""

import socket
import threading

from .ports import LOOPBACK


class ConnectionServer:
    """Calls `_converse(connection)` of the class that derives from it, on a thread a connection."""

    def __init__(self):
        self._closing = threading.Event()
        self._listener = socket.create_server((LOOPBACK, 0), backlog=64)
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        """Let go of connections that are held as well. May be called again."""
        self._closing.set()
        try:
            self._listener.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass  # closed before
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
                self._converse(connection)
            except (OSError, EOFError):
                pass  # the client left first; what it asked is on record
