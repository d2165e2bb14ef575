"""A name server on 127.0.0.1 that has the same address for every name."""

import socket
import threading

_ADDRESS_TYPE = b"\0\1"
_HEADER_SIZE = 12


class NameServer:
    """Answers until it is closed. For a network namespace of its own: the port is 53."""

    def __init__(self, address="127.0.0.1"):
        self.names = []
        self._address = socket.inet_aton(address)
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind(("127.0.0.1", 53))
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            query, sender = self._socket.recvfrom(512)
            if not query:
                return
            self._socket.sendto(self._answer(query), sender)

    def _answer(self, query):
        """RFC 1035 section 4.1; what is asked for and is no IPv4 address does not exist."""
        end = query.index(b"\0", _HEADER_SIZE) + 1
        self.names.append(_name(query[_HEADER_SIZE:end]))
        found = query[end:end + 2] == _ADDRESS_TYPE
        header = query[:2] + b"\x84\0\0\1" + bytes([0, found]) + bytes(4)
        record = b"\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4" + self._address
        return header + query[_HEADER_SIZE:end + 4] + (record if found else b"")

    def close(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stop:
            stop.sendto(b"", ("127.0.0.1", 53))
        self._socket.close()


def _name(labels):
    parts = []
    while labels[0]:
        parts.append(labels[1:1 + labels[0]].decode())
        labels = labels[1 + labels[0]:]
    return ".".join(parts)
