"""A scripted local key service: one connection, one request word, one length-prefixed answer."""

import socket
import threading
import time
from dataclasses import dataclass

from .framing import frame
from .http_server import reset_on_close
from .ports import LOOPBACK

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


class FakeKeyService:
    """Hands out the device's key and certificate unless a word is scripted."""

    def __init__(self, device):
        self.exchanges = []  # all bytes that each connection received, in the order of the connections' ends
        self._usual = {PRIVATE_KEY: framed(device.key_pem), CERTIFICATE: framed(device.certificate_pem)}
        self._scripts = {}
        self._closing = threading.Event()
        self._listener = socket.create_server((LOOPBACK, 0), backlog=16)
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def script(self, word, *answers):
        """Each request of the word takes the next answer; the last one stays."""
        self._scripts[word] = list(answers)

    def close(self):
        """Let go of connections that are held as well."""
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
        received = b""
        with connection:
            connection.settimeout(60)
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            try:
                while received not in self._usual:
                    piece = connection.recv(64)
                    if not piece:
                        return
                    received += piece
                received += self._give(connection, self._next(received))
            except OSError:
                pass  # the client left first
            finally:
                self.exchanges.append(received)

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
