"""Free TCP ports on the loopback interface."""

import socket

LOOPBACK = "127.0.0.1"


class ReservedPort:
    """A port that is bound and not listening, so that nobody else is given it while a service may bind it as well."""

    def __init__(self):
        self._socket = socket.socket()
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.bind((LOOPBACK, 0))
        self.number = self._socket.getsockname()[1]

    def listen(self):
        """Take the port for real: from now on nobody else can bind it."""
        self._socket.listen()

    def close(self):
        self._socket.close()
