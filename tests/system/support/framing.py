"""The frame that the local API and the key service share: a big-endian 32-bit length, then the payload."""

import struct

LARGEST_PAYLOAD = 1024 * 1024


def frame(payload, announced=None):
    return struct.pack(">I", len(payload) if announced is None else announced) + payload
