"""A cloud and identity provider that often fails at random, and knows each token that it gave."""

import json
import random
import time
from dataclasses import dataclass

from support.fake_cloud import TOKEN_PATH, FakeCloud
from support.http_server import Raw, Reply, as_bytes, redirect

FAULTY_REPLIES = 0.15  # of all replies
LONGEST_DELAY = LONGEST_HALT = 1.0
GRANTED_SECONDS = (3600, 60, 22, 21, 21, 21, 15, 0)  # the service refuses what lasts less than 20 seconds


@dataclass(frozen=True)
class Late:
    """A right answer that lets the service wait."""
    reply: object
    seconds: float

    def send(self, connection, closing):
        closing.wait(self.seconds)
        self.reply.send(connection, closing)


class SoakCloud(FakeCloud):
    def __init__(self, device, seed):
        self._random = random.Random(seed)
        self.issued = {}  # token -> (scope, end of its life)
        self.failing = True
        super().__init__(device)

    def answer(self, request):
        reply = super().answer(request)
        if request.target == TOKEN_PATH:
            reply = self._grant(request.body.decode("latin-1"))
        self._server.requests.clear()  # nobody looks at them, and they are many
        with self._lock:
            return self._spoilt(reply) if self.failing and self._random.random() < FAULTY_REPLIES else reply

    def _grant(self, form):
        """On record before it is sent, so that no client can be faster. The scopes have no & in them."""
        scope = form.partition("&scope=")[2].partition("&")[0]
        with self._lock:
            seconds = self._random.choice(GRANTED_SECONDS)
            token = f"{scope}/{len(self.issued)}"
            self.issued[token] = (scope, time.time() + seconds)
        return Reply(200, {"access_token": token, "token_type": "Bearer", "expires_in": seconds})

    def _spoilt(self, reply):
        choose = self._random
        head = f"HTTP/1.1 200 OK\r\nContent-Length: {len(as_bytes(reply.body)) + 10}\r\n\r\n".encode()
        whole = b"HTTP/1.1 200 OK\r\n\r\n" + as_bytes(reply.body)
        return choose.choice([
            Reply(choose.choice([204, 400, 401, 403, 404, 429, 500, 502, 503]), reply.body),
            redirect("/nowhere", choose.choice([301, 302, 307])),
            Raw(),  # closed at once
            Raw(b"", "reset"),
            Raw(head + as_bytes(reply.body)),  # closed before the announced end
            Raw(head, "reset"),
            Raw(choose.randbytes(choose.randrange(1, 5000))),
            Raw(b"HTTP/1.1 200 OK\r\n\r\n" + choose.randbytes(choose.randrange(1, 100000))),
            Reply(200, self._changed(as_bytes(reply.body))),
            Reply(200, b"[" * choose.randrange(1, 100000)),
            Late(reply, choose.uniform(0, LONGEST_DELAY)),
            Raw(whole, pause=choose.uniform(0, LONGEST_DELAY) / len(whole)),
        ])

    def _changed(self, body):
        """Not JSON any more, wherever it is cut."""
        return body[:self._random.randrange(len(body))] if body else b"{"

    def wrong_token(self, token, scope, asked_at):
        """What is wrong with a token that was given for this scope, or nothing. A token is given while it has 20 whole
        seconds left, counted from when its issuer's answer was there: that may have been late, and the process may
        have been halted then."""
        known_scope, end = self.issued.get(token, (None, 0))
        if known_scope is None:
            return f"nobody issued {token!r}"
        if known_scope != scope:
            return f"{token!r} was issued for another scope than {scope!r}"
        left = end - asked_at
        return f"{token!r} had {left:.1f} s left" if left < 18 - LONGEST_DELAY - LONGEST_HALT else None


def judged_reply(cloud, name, scope, reply, asked_at):
    """What is wrong with the reply to a good request, or nothing; and whether it was given what it asked for."""
    try:
        answer = json.loads(reply)
    except ValueError:
        return f"not JSON: {reply!r}", False
    if answer.get("status") == "error":
        known = answer["message"] == "std::exception" or answer["message"].startswith("Cloud discovery failed. ")
        return (None if known else f"an unknown failure: {answer}"), False
    if name == "token":
        return cloud.wrong_token(answer.get("token"), scope, asked_at), True
    expected = {"certificate_id": ("certificate_id", cloud.device.id), "data": ("discovery_data", cloud.payload())}
    key, value = expected.get(name, (None, None))
    right = answer == ({"status": "ok", key: value} if key else {"status": "ok"})
    return (None if right else f"{name}: {answer}"), True
