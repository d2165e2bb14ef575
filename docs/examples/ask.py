#!/usr/bin/env python3
"""Asks the SSO Discovery Service one thing over its local API and prints the reply.

    ask.py PORT REQUEST        ask.py 5055 '{"request":"token","scope":"telemetry"}'
"""

import socket
import sys

PATIENCE_SECONDS = 120  # a reply may have to wait for the cloud, behind other requests


def receive(connection, count):
    """Exactly so many bytes, in however many pieces they come."""
    received = b""
    while len(received) < count:
        piece = connection.recv(count - len(received))
        if not piece:
            raise ConnectionError("the service closed the connection before its reply was complete")
        received += piece
    return received


def ask(port, request):
    """Sends one request and returns the reply, both JSON text. A connection serves one request."""
    with socket.create_connection(("127.0.0.1", port), PATIENCE_SECONDS) as connection:
        payload = request.encode()
        connection.sendall(len(payload).to_bytes(4, "big") + payload)
        length = int.from_bytes(receive(connection, 4), "big")
        return receive(connection, length).decode()


if __name__ == "__main__":
    if len(sys.argv) != 3 or not sys.argv[1].isdigit():
        sys.exit(__doc__)
    try:
        print(ask(int(sys.argv[1]), sys.argv[2]))
    except OSError as reason:
        sys.exit(f"ask.py: {reason}")
