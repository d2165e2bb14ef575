"""A scripted local key service: one connection, one request word, one length-prefixed answer."""

import time
from dataclasses import dataclass

from .connections import ConnectionServer
from .framing import frame
from .http_server import reset_on_close
from .waiting import wait_until

PRIVATE_KEY = b"privatekey"
CERTIFICATE = b"certificate"


@dataclass(frozen=True)
class Answer:
    """Pieces sent one after the other, then an end: "wait" for the client to close, "close", "reset", or "hold"."""
    pieces: tuple = ()
    ending: str = "wait"
    pause: float = 0


def framed(payload, announced=None, ending="wait"):
    return Answer((frame(payload, announced),), ending)


def in_pieces(payload, size, pause):
    data = frame(payload)
    return Answer(tuple(data[i:i + size] for i in range(0, len(data), size)), pause=pause)


class FakeKeyService(ConnectionServer):
    """Hands out the device's key and certificate unless a word is scripted."""

    def __init__(self, device):
        self.exchanges = []  # all bytes that each connection received, in the order of the connections' ends
        self._usual = {PRIVATE_KEY: framed(device.key_pem), CERTIFICATE: framed(device.certificate_pem)}
        self._scripts = {}
        super().__init__()

    def script(self, word, *answers):
        """Each request of the word takes the next answer; the last one stays."""
        self._scripts[word] = list(answers)

    def _converse(self, connection):
        received = b""
        try:
            while received not in self._usual:
                piece = connection.recv(64)
                if not piece:
                    return
                received += piece
            received += self._give(connection, self._next(received))
        finally:
            self.exchanges.append(received)

    def wait_exchanges(self, count):
        """All exchanges, once there are so many: the client may be at its next step before this side sees the end."""
        wait_until(lambda: len(self.exchanges) >= count, lambda: f"{count} exchanges, not {self.exchanges}")
        return self.exchanges

    def _next(self, word):
        answers = self._scripts.get(word) or [self._usual[word]]
        return answers.pop(0) if len(answers) > 1 else answers[0]

    def _give(self, connection, answer):
        for piece in answer.pieces:
            connection.sendall(piece)
            time.sleep(answer.pause)
        if answer.ending == "hold":
            self._closing.wait()
        if answer.ending == "reset":
            reset_on_close(connection)
        if answer.ending != "wait":
            return b""
        surplus = b""
        while piece := connection.recv(64):
            surplus += piece
        return surplus
