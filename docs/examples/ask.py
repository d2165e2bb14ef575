#!/usr/bin/env python3
"""Asks the SSO Discovery Service one thing over its local API and prints the reply,
refusals included.

    ask.py PORT REQUEST        ask.py 5055 '{"request":"token","scope":"telemetry"}'
"""

import socket
import sys
import time

PATIENCE_SECONDS = 120  # for the whole call: a reply may have to wait for the cloud, behind other requests
MAX_REPLY_BYTES = 1024 * 1024


def limit(connection, deadline):
    """Gives the connection's next step the time that is left."""
    seconds = deadline - time.monotonic()
    if seconds <= 0:
        raise TimeoutError("timed out")
    connection.settimeout(seconds)


def receive(connection, count, deadline):
    """Exactly so many bytes, in however many pieces they come."""
    received = bytearray()
    while len(received) < count:
        limit(connection, deadline)
        piece = connection.recv(count - len(received))
        if not piece:
            raise ConnectionError("the service closed the connection before its reply was complete")
        received += piece
    return received


def ask(port, request):
    """Sends one request and returns the reply, both JSON text. A connection serves one request."""
    deadline = time.monotonic() + PATIENCE_SECONDS
    with socket.create_connection(("127.0.0.1", port), PATIENCE_SECONDS) as connection:
        payload = request.encode(errors="surrogateescape")  # bytes of a command line that are not UTF-8 stay
        limit(connection, deadline)
        connection.sendall(len(payload).to_bytes(4, "big") + payload)
        length = int.from_bytes(receive(connection, 4, deadline), "big")
        if length > MAX_REPLY_BYTES:
            raise ConnectionError(f"the reply is too long: {length} bytes")
        try:
            return receive(connection, length, deadline).decode()
        except UnicodeError as reason:
            raise ConnectionError("the reply is not UTF-8") from reason


if __name__ == "__main__":
    if len(sys.argv) != 3 or sys.argv[1] not in map(str, range(1, 65536)):
        sys.exit(__doc__)
    try:
        reply = ask(int(sys.argv[1]), sys.argv[2])
        with open(1, "w", encoding="utf-8", closefd=False) as output:  # fails here if it fails, and not at exit
            print(reply, file=output)
    except OSError as reason:
        sys.exit(f"ask.py: {reason}")
