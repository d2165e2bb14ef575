"""A scripted local API: it takes one request frame a connection and answers with whatever bytes it is told."""

from .connections import ConnectionServer
from .framing import read_frame


class FakeService(ConnectionServer):
    def __init__(self, answer, takes_request=True):
        """The answer is one of http_server's: it has `send(connection, closing)`."""
        self.requests = []  # the payloads, in the order of arrival
        self._answer = answer
        self._takes_request = takes_request
        super().__init__()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _converse(self, connection):
        if self._takes_request:
            self.requests.append(read_frame(connection))
        self._answer.send(connection, self._closing)
