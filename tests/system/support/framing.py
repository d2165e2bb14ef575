"""The frame that the local API and the key service share: a big-endian 32-bit length, then the payload."""

import struct

LARGEST_PAYLOAD = 1024 * 1024


def frame(payload, announced=None):
    return struct.pack(">I", len(payload) if announced is None else announced) + payload


def read_frame(connection):
    """The payload of the next frame on a socket; EOFError when the other side ends first."""
    def read(count):
        data = stream.read(count)
        if len(data) < count:
            raise EOFError(f"closed after {len(data)} of {count} bytes")
        return data

    with connection.makefile("rb") as stream:
        return read(struct.unpack(">I", read(4))[0])
