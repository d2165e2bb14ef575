"""The service for minutes among random faults: every peer misbehaves now and then, and nothing may grow, hang or lie.

Not part of the matrix; scripts/soak runs it. SSO_SOAK_SECONDS and SSO_SOAK_SEED say how long and which faults."""

import os
import random
import signal
import threading
import time
from collections import Counter
from types import SimpleNamespace

import pytest
from soak_cloud import LONGEST_HALT, SoakCloud, judged_reply

from support.api_client import ApiClient
from support.exchanges import ID_REPLY, ID_REQUEST
from support.framing import frame
from support.waiting import MARGIN_SECONDS, wait_until
from support.world import World

SECONDS = int(os.environ.get("SSO_SOAK_SECONDS", "600"))
SEED = int(os.environ.get("SSO_SOAK_SEED") or random.randrange(2 ** 32))
PORTS = 3
CLIENTS_PER_PORT = 3
SCOPES = ["", "device", "telemetry read", *(f"scope-{number}" for number in range(9))]
# What the service needs at most here: the other clients of the port, each with two slow answers, and a stop of it.
ANSWER_SECONDS = 20
# The heap is as large as the largest request or answer made it and is given back in part; what a request leaks shows
# many times over, because there are some hundred of them a second. Pages of the libraries come in when first used.
MEMORY_TOLERANCE_KILOBYTES = 1024


class Run:
    """One service, its cloud, its clients, and what they found."""

    def __init__(self, executable, device, folder):
        print(f"seed {SEED}, {SECONDS} seconds")
        self.world = World(executable, device, folder)
        self.cloud = SoakCloud(device, SEED)
        self.ports = [self.world.new_port() for _ in range(PORTS)]
        cache = self.world.new_folder("cache")
        (cache / f"{device.id}.cfg").write_bytes(self.cloud.discovery_body())
        self.service = self.world.start(self.world.document(
            self.cloud.discovery_url, ports=self.ports, cache_folder=cache, level="info")).wait_ready()
        self.wrong = []
        self.counts = Counter()
        self.memory = []  # every second
        self._working = threading.Event()
        self._over = threading.Event()
        self._busy = Counter()
        clients = [lambda number=number: self._client(number) for number in range(PORTS * CLIENTS_PER_PORT)]
        self._threads = [threading.Thread(target=work) for work in [*clients, self._disturb]]

    def play(self):
        for thread in self._threads:
            thread.start()
        warm_up = min(60, SECONDS / 4)
        self._work(warm_up)
        self.before = self._measure()
        self._work(SECONDS - warm_up)
        self.after = self._measure()
        self._finish()
        print(f"requests: {dict(sorted(self.counts.items()))}, tokens issued: {len(self.cloud.issued)}")
        print(f"kilobytes each half minute, at work: {self.memory[::30]}")
        print(f"after the warm-up: {self.before}\nat the end: {self.after}")

    def _finish(self):
        self._over.set()
        self._working.set()
        for thread in self._threads:
            thread.join()

    def close(self):
        self._finish()
        self.cloud.close()
        self.world.close()

    # --- from the outside

    def _work(self, seconds):
        end = time.monotonic() + seconds
        self._working.set()
        while time.monotonic() < end and self.service.process.poll() is None:
            time.sleep(1)
            self.memory.append(self.service.resident_memory_kilobytes())
            os.truncate(self.service.stdout_path, 0)  # the log would fill the disk
        self._working.clear()

    def _measure(self):
        """When nobody asks anything: what the service holds."""
        wait_until(lambda: not any(self._busy.values()), "clients that have ended what they began", 60)
        self.cloud.failing = False
        try:
            wait_until(self._settled, "no connection any more", 60)
            return SimpleNamespace(memory=self.service.resident_memory_kilobytes(),
                                   descriptors=len(self.service.open_descriptors()),
                                   threads=len(os.listdir(f"/proc/{self.service.process.pid}/task")))
        finally:
            self.cloud.failing = True

    def _settled(self):
        """Ready, and without connections: each port listens, and that is all."""
        ready = all(ApiClient(port).exchange(ID_REQUEST) == ID_REPLY for port in self.ports)
        time.sleep(1.5)  # a reset is seen within a second
        return ready and len(self.service.open_sockets()) == PORTS

    def _disturb(self):
        """Now and then makes the service ask the cloud again, tells it to read its key again, or halts it."""
        choose = random.Random(f"{SEED} disturbances")
        while not self._over.wait(choose.uniform(0.2, 3)):
            if not self._working.is_set():
                continue
            kind = choose.choice(["reset", "halt", "hang-up"])
            self.counts[kind] += 1
            if kind == "reset":
                self._ask(kind, ApiClient(choose.choice(self.ports)))
            elif kind == "hang-up":
                self.service.send_signal(signal.SIGHUP)
            else:
                self.service.send_signal(signal.SIGSTOP)
                self._over.wait(choose.uniform(0.01, LONGEST_HALT))
                self.service.send_signal(signal.SIGCONT)

    # --- local clients

    def _client(self, number):
        choose = random.Random(f"{SEED} client {number}")
        api = ApiClient(self.ports[number % PORTS])
        while self._working.wait() and not self._over.is_set():
            self._busy[number] = 1
            if self._working.is_set():
                self._act(choose, api)
            self._busy[number] = 0
            time.sleep(choose.uniform(0, 0.02))

    def _act(self, choose, api):
        kind = choose.choices(["token", "data", "certificate_id", "ill"], [6, 1, 1, 1])[0]
        if kind == "ill":
            self._misbehave(choose, api)
        else:
            self._ask(kind, api, choose.choice(SCOPES))

    def _ask(self, kind, api, scope=""):
        request = frame(f'{{"request":"{kind}","scope":"{scope}"}}'.encode())
        asked_at, began = time.time(), time.monotonic()
        try:
            with api.connect() as connection:
                connection.send(request)
                reply = connection.receive_frame()
            wrong, granted = judged_reply(self.cloud, kind, scope, reply, asked_at)
        except (OSError, EOFError) as error:
            wrong, granted = f"{kind}: {error!r}", False
        if time.monotonic() - began > ANSWER_SECONDS:
            wrong = f"{kind} took {time.monotonic() - began:.1f} s"
        self.counts[f"{kind} {'given' if granted else 'refused'}"] += 1
        if wrong:
            self.wrong.append(wrong)

    def _misbehave(self, choose, api):
        name, act = choose.choice([
            ("silent", lambda connection: time.sleep(choose.uniform(0, 0.2))),
            ("half a length", lambda connection: connection.send(b"\0\0")),
            ("half a payload", lambda connection: connection.send(frame(b'{"request":', 500))),
            ("half and reset", lambda connection: (connection.send(frame(ID_REQUEST, 500)), connection.reset())),
            ("too long", lambda connection: connection.send(frame(b"", 2 ** 31) + b"x" * 1000)),
            ("garbage", lambda connection: self._answered(connection, choose.randbytes(choose.randrange(1, 3000)))),
            ("large", lambda connection: self._answered(connection, b'{"request":"%s"}' % (b"/" * 500000))),
            ("reply unread", lambda connection: connection.send(frame(ID_REQUEST))),
            ("reply reset", lambda connection: (connection.send(frame(ID_REQUEST)), connection.reset())),
        ])
        try:
            with api.connect() as connection:
                act(connection)
        except (ConnectionResetError, BrokenPipeError):
            pass  # the service may close first
        except (OSError, EOFError) as error:
            self.wrong.append(f"{name}: {error!r}")
        self.counts[name] += 1

    def _answered(self, connection, payload):
        connection.send(frame(payload))
        reply = connection.receive_frame()
        if not reply.startswith(b'{"status":"error"'):
            self.wrong.append(f"{payload[:100]!r} got {reply[:100]!r}")


@pytest.fixture(scope="module")
def run(executable, device, tmp_path_factory):
    result = Run(executable, device, tmp_path_factory.mktemp("soak"))
    try:
        result.play()
        yield result
    finally:
        result.close()


def test_process_lives(run):
    assert run.service.process.poll() is None, run.service.evidence()


def test_every_request_was_answered_in_time_and_rightly(run):
    assert not run.wrong, f"{len(run.wrong)} wrong: {run.wrong[:20]}"


def test_everything_happened(run):
    """Otherwise the rest would prove little."""
    wanted = {"token given", "token refused", "data given", "certificate_id given", "reset given", "silent",
              "half a length", "half a payload", "half and reset", "too long", "garbage", "large", "reply unread",
              "reply reset", "reset", "halt", "hang-up"}
    assert not wanted - run.counts.keys()
    assert run.counts["token given"] > SECONDS * 10, run.counts


def test_every_assertion_was_right(run):
    assert not run.cloud.faults, run.cloud.faults[:20]


def test_memory_stayed(run):
    assert run.after.memory <= run.before.memory + MEMORY_TOLERANCE_KILOBYTES, (run.before, run.after)


def test_descriptors_stayed(run):
    assert run.after.descriptors == run.before.descriptors, (run.before, run.after)


def test_threads_stayed(run):
    assert run.after.threads == run.before.threads, (run.before, run.after)


def test_stops_at_once_with_status_0(run):
    """The last one: it ends the service."""
    began = time.monotonic()
    run.service.stop()
    assert time.monotonic() - began < MARGIN_SECONDS
