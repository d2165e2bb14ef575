"""From the start of the process to the first token served, and the memory of a service that is ready to serve, against
bare_token.c, which makes the same exchanges with libcurl and OpenSSL and does nothing else.

The cloud is a stand-in on the loopback interface. For HTTPS, an authority that is made for the run signs its
certificate. libcurl trusts the system's bundle of authorities alone, so this script runs in a mount namespace of its
own, where a copy with one more authority lies over the bundle."""

import argparse
import contextlib
import json
import os
import pathlib
import re
import ssl
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "tests/system"))

from footprint import TOKEN  # noqa: E402
from statistics_of_runs import arguments, row, write_section  # noqa: E402
from support.api_client import ApiClient  # noqa: E402
from support.assertion import faults_of_assertion  # noqa: E402
from support.configuration import as_text, configuration, file_provider  # noqa: E402
from support.device import Device  # noqa: E402
from support.fake_cloud import TOKEN_PATH, WELL_KNOWN_PATH, data_body  # noqa: E402
from support.http_server import HttpServer, Reply  # noqa: E402
from support.ports import LOOPBACK, ReservedPort  # noqa: E402
from support.service import clean_environment  # noqa: E402
from support.waiting import DEADLINE_SECONDS  # noqa: E402

RUNS = 11
MOST_TIME = 1.2  # times the bare program's
MOST_MEMORY = 1.15
DISCOVERY_BYTES = 1024
OFTEN, SELDOM = 0.0005, 0.25  # seconds before each question


def main():
    parser = arguments(__doc__)
    parser.add_argument("--in-namespace", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    bundle = output("curl-config", "--ca").strip()
    if not options.in_namespace:
        enter = ["unshare", *([] if os.geteuid() == 0 else ["--map-root-user"]), "--mount"]
        if subprocess.run([*enter, "mount", "--bind", bundle, bundle]).returncode == 0:
            os.execvp("unshare", [*enter, sys.executable, *sys.argv, "--in-namespace"])
    runs = 1 if options.quick else RUNS
    rows = []
    notes = [f"The discovery data has {DISCOVERY_BYTES} bytes, the token {len(TOKEN)}.",
             "Key read as often: for each block of the discovery data and for the signature. The service keeps the "
             "key's text, never the key that OpenSSL makes of it."]
    if not options.in_namespace:
        notes.append(f"HTTPS is left out: nothing may be mounted over {bundle} here.")
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        device = Device(folder)
        contexts = [trusted_context(folder, bundle), None] if options.in_namespace else [None]
        for context in contexts:
            with contextlib.closing(Cloud(device, context)) as cloud:
                rivals = Service(options.build, folder, cloud), Bare(options.build, cloud)
                rows += time_rows(cloud, *rivals, runs)
                if cloud.secured:
                    rows += memory_rows(cloud, *rivals, runs)
                notes.append(f"{cloud.setting}: {1000 * cloud.seconds_a_run():.1f} ms of a run are processor time of "
                             "the stand-in cloud.")
    write_section(options, "First token", rows, notes)


def trusted_context(folder, bundle):
    """For a server on the loopback interface that libcurl trusts within this namespace."""
    authority = make_certificate(folder / "authority", "/CN=Authority of this run")
    server = make_certificate(folder / "server", f"/CN={LOOPBACK}", "-addext", f"subjectAltName=IP:{LOOPBACK}",
                              "-CA", authority[0], "-CAkey", authority[1])
    longer = folder / "bundle"
    longer.write_bytes(pathlib.Path(bundle).read_bytes() + pathlib.Path(authority[0]).read_bytes())
    output("mount", "--bind", longer, bundle)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(*server)
    return context


def make_certificate(path, subject, *more):
    """Makes a certificate, its own authority unless more is said, and returns the names of its file and its key's."""
    names = f"{path}.crt", f"{path}.key"
    output("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
           "-subj", subject, "-out", names[0], "-keyout", names[1], *more)
    return names


def output(*command):
    run = subprocess.run(command, capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    return run.stdout


class Cloud(HttpServer):
    """Gives answers that are made beforehand, so that little of the time that is measured is the cloud's own."""

    def __init__(self, device, context=None):
        super().__init__(lambda request: self._answers.get(request.target, Reply(404)))
        self.device = device
        self.secured = context is not None
        self.setting = "HTTPS" if context else "HTTP"
        self._context = context
        self._seconds = []
        url = f"{self.setting.lower()}://{LOOPBACK}:{self.port}"
        self.discovery_url = url + "/devices/"
        self.well_known_url = url + WELL_KNOWN_PATH
        self.token_url = url + TOKEN_PATH
        data = {"config": {"endpoints": {"veloIdConfiguration": self.well_known_url}, "region": ""}}
        data["config"]["region"] = "r" * (DISCOVERY_BYTES - len(json.dumps(data)))
        self._answers = {
            "/devices/" + device.id: Reply(200, data_body(device.encrypt(json.dumps(data).encode()))),
            WELL_KNOWN_PATH: Reply(200, {"issuer": url, "token_endpoint": self.token_url}),
            TOKEN_PATH: Reply(200, {"access_token": TOKEN, "token_type": "Bearer", "expires_in": 3600})}

    def _converse(self, connection):
        if self._context:
            with self._context.wrap_socket(connection, server_side=True) as secured:
                super()._converse(secured)
        else:
            super()._converse(connection)
        self._seconds.append(time.thread_time())  # each connection has a thread of its own

    def seconds_a_run(self):
        """The processor time that the three exchanges of a run take here, on average."""
        return sum(self._seconds) / len(self._seconds) * 3

    def take_run(self):
        """What was asked in a run that is over: a fault when it is not the three exchanges. Returns the last one."""
        targets = [request.target for request in self.requests]
        assert targets == list(self._answers), targets
        last = self.requests[-1]
        self.requests.clear()
        return last


class Service:
    def __init__(self, build, folder, cloud):
        self._cloud = cloud
        self._port = ReservedPort()
        self._api = ApiClient(self._port.number)
        file = folder / f"{cloud.setting}.json"
        file.write_text(as_text(configuration(cloud.discovery_url, file_provider(cloud.device), [self._port.number],
                                              level="error")))
        self._command = [build / "sso-discovery-service", file]

    def first_token(self):
        """Milliseconds. A question that comes too early holds the service up: none before it has asked the cloud."""
        begin = time.perf_counter()
        with running(self._command, subprocess.DEVNULL) as process:
            self._wait(process, OFTEN, lambda: self._cloud.requests)
            token = self._ask(process, OFTEN, "token", scope="telemetry")["token"]
            elapsed = time.perf_counter() - begin
            self._stop(process)
        assert token == TOKEN
        form = self._cloud.take_run().body.decode()
        faults = faults_of_assertion(form.rpartition("=")[2], self._cloud.device.public_key, self._cloud.device.id,
                                     self._cloud.token_url)
        assert not faults, faults
        return 1000 * elapsed

    def memory(self):
        """When it is ready and has served no token, and when it has served one. It is asked when it is ready in all
        likelihood: a refusal is an exception, and the memory that the first exception takes would be counted."""
        with running(self._command, subprocess.DEVNULL) as process:
            self._ask(process, SELDOM, "certificate_id")
            ready = memory_of(process)
            self._ask(process, OFTEN, "token", scope="telemetry")
            served = memory_of(process)
            self._stop(process)
        self._cloud.take_run()
        return ready, served

    def _ask(self, process, pause, name, **members):
        """The first good reply."""
        def ask():
            with contextlib.suppress(ConnectionRefusedError):
                reply = self._api.request(name, **members)
                return reply["status"] == "ok" and reply
        return self._wait(process, pause, ask)

    def _wait(self, process, pause, condition):
        end = time.monotonic() + DEADLINE_SECONDS
        while True:
            time.sleep(pause)
            if value := condition():
                return value
            assert process.poll() is None and time.monotonic() < end, "the service does not become ready"

    def _stop(self, process):
        process.terminate()
        assert process.wait(DEADLINE_SECONDS) == 0


class Bare:
    def __init__(self, build, cloud):
        self._cloud = cloud
        self._program = build / "bench/bare_token"
        self._files = [cloud.device.key_path, cloud.device.certificate_path]
        self._discovery_url = cloud.discovery_url + cloud.device.id

    def first_token(self, *mode):
        """Milliseconds."""
        begin = time.perf_counter()
        with running([self._program, *mode, *self._files, self._discovery_url, self._cloud.well_known_url,
                      self._cloud.token_url]) as process:
            token = process.stdout.readline()
            elapsed = time.perf_counter() - begin
            assert process.wait(DEADLINE_SECONDS) == 0
        assert token == TOKEN.encode() + b"\n"
        self._cloud.take_run()
        return 1000 * elapsed

    def memory(self):
        """After a request and a signature."""
        with running([self._program, "--wait", *self._files, self._discovery_url]) as process:
            assert process.stdout.readline() == b"ready\n"
            memory = memory_of(process)
            process.stdin.close()
            assert process.wait(DEADLINE_SECONDS) == 0
        self._cloud.requests.clear()
        return memory


@contextlib.contextmanager
def running(command, stdout=subprocess.PIPE):
    with subprocess.Popen(command, env=clean_environment(), stdin=subprocess.PIPE, stdout=stdout) as process:
        try:
            yield process
        finally:
            process.kill()


def memory_of(process):
    """KiB of memory that is there (RSS), and the process's share of it (PSS)."""
    text = pathlib.Path(f"/proc/{process.pid}/smaps_rollup").read_text()
    return {name: int(re.search(rf"^{name}: +(\d+) kB$", text, re.M).group(1)) for name in ("Rss", "Pss")}


def time_rows(cloud, service, bare, runs):
    service.first_token(), bare.first_token()  # what has to be read from the disk is in memory afterwards
    times, bare_times, anew_times = zip(*[
        (service.first_token(), bare.first_token(), bare.first_token("--anew")) for _ in range(runs)])
    return [row("first token", cloud.setting, "time", "ms", times, "bare, key read once", bare_times,
                at_most=MOST_TIME if cloud.secured else None),
            row("first token", cloud.setting, "time", "ms", times, "bare, key read as often", anew_times,
                at_most=MOST_TIME if cloud.secured else None)]


def memory_rows(cloud, service, bare, runs):
    states, bare_states = zip(*[(service.memory(), bare.memory()) for _ in range(runs)])
    ready, served = zip(*states)

    def row_of(name, memories, figure, at_most=None):
        return row(name, cloud.setting, figure.upper(), "KiB", [memory[figure] for memory in memories], "bare",
                   [memory[figure] for memory in bare_states], at_most=at_most)

    return [row_of("ready to serve", ready, "Rss", MOST_MEMORY), row_of("ready to serve", ready, "Pss"),
            row_of("first token served", served, "Rss"), row_of("first token served", served, "Pss")]


if __name__ == "__main__":
    main()
