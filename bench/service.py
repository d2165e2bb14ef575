"""A token from the cache: the service beside a server that does nothing (bare_server.c), asked by load.c.

    service.py --build FOLDER [--output FILE] [--quick]
    service.py --build FOLDER --syscalls     counts system calls by strace and prints them as a table

The cloud is a stand-in over plain HTTP; it is asked once for each service, before anything is measured."""

import contextlib
import json
import os
import pathlib
import re
import shlex
import signal
import subprocess
import sys
import tempfile

from statistics_of_runs import arguments, row, write_section

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "tests/system"))

from support.api_client import ApiClient  # noqa: E402
from support.device import Device  # noqa: E402
from support.fake_cloud import TOKEN_PATH  # noqa: E402
from support.framing import frame  # noqa: E402
from support.http_server import Reply  # noqa: E402
from support.waiting import wait_until  # noqa: E402
from support.world import World  # noqa: E402

TOKEN = "eyJhbGciOiJSUzI1NiJ9." + "x" * 536 + "." + "y" * 342  # as long as a signed JWT with a few claims
REQUEST = b'{"request":"token","scope":"telemetry"}'
NO_LIMIT = 10_000_000  # requests of a run that ends by time
ERROR, INFO, DEBUG, PIPE = "level error", "level info, to a file", "level debug, to a file", "level info, to a pipe"

FIGURES = {"per_second": ("requests", "1/s"), "p50": ("p50", "µs"), "p99": ("p99", "µs"), "p99.9": ("p99.9", "µs"),
           "cpu": ("CPU time per request", "µs"), "switches": ("context switches per request", "")}
GOALS = {(ERROR, "per_second"): {"at_least": 0.90}, (ERROR, "p99"): {"at_most": 1.25},
         (INFO, "per_second"): {"at_least": 0.70}}


def main():
    parser = arguments(__doc__)
    parser.add_argument("--syscalls", action="store_true")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(dir=options.build) as name, contextlib.ExitStack() as ending:
        bench = Bench(options.build, pathlib.Path(name), ending)
        if options.syscalls:
            print_system_calls(bench)
            return
        rows = [*against_bare(bench, rounds=1 if options.quick else 5, seconds=0.1 if options.quick else 0.8),
                *growth(bench, 4_000 if options.quick else 200_000)]
        notes = [] if bench.client_cpu is not None else ["Different cores are left out: there is one core."]
        write_section(options, "Cached token", rows, notes)


class Server:
    """A process that is asked, on its CPU."""

    def __init__(self, process, port, log=None, log_reader=None):
        self.process = process
        self.port = port
        self.log = log
        self.log_reader = log_reader

    def tasks(self, file):
        """What the file of each of the process's threads holds."""
        return [task.joinpath(file).read_text() for task in pathlib.Path(f"/proc/{self.process}/task").iterdir()]

    def cpu_microseconds(self):
        return sum(int(text.split()[0]) for text in self.tasks("schedstat")) / 1000

    def context_switches(self):
        return sum(int(count) for text in self.tasks("status") for count in re.findall(r"ctxt_switches:\s+(\d+)", text))

    def memory(self):
        """Resident and proportional set in KiB."""
        text = pathlib.Path(f"/proc/{self.process}/smaps_rollup").read_text()
        return [int(re.search(rf"^{name}:\s+(\d+) kB", text, re.M).group(1)) for name in ("Rss", "Pss")]


class Bench:
    """Everything that is started, and where: servers on one CPU, the client and who reads a log on another."""

    def __init__(self, build, folder, ending):
        self._programs = build / "bench"
        self._folder = folder
        self._ending = ending
        self.server_cpu, self.client_cpu = two_cores()
        self._pipe = folder / "pipe"
        os.mkfifo(self._pipe)
        self._pipe_reader = self._start("cat", self._pipe, stdout=subprocess.DEVNULL)  # ends after who writes
        self._world = World(build / "sso-discovery-service", Device(folder / "device"), folder)
        ending.callback(self._world.close)
        self._cloud = self._world.new_cloud()
        self._cloud.script(TOKEN_PATH, Reply(200, {"access_token": TOKEN, "token_type": "Bearer",
                                                   "expires_in": 86400}))
        self._request, self._reply = folder / "request", folder / "reply"
        self._request.write_bytes(frame(REQUEST))

    def _start(self, *command, **options):
        process = self._ending.enter_context(subprocess.Popen(command, **options))
        self._ending.callback(process.kill)
        return process

    def bare(self):
        """Replies what the services have replied."""
        process = self._start("taskset", "-c", str(self.server_cpu), self._programs / "bare_server", self._reply,
                              stdout=subprocess.PIPE)
        return Server(process.pid, int(process.stdout.readline()))

    def service(self, variant):
        """With the token in its cache."""
        level = variant.split()[1].rstrip(",")
        wrapper = ["taskset", "-c", str(self.server_cpu)]
        log = reader = None
        if variant == PIPE:
            reader = self._pipe_reader
            wrapper += ["sh", "-c", f'exec "$@" >{shlex.quote(str(self._pipe))}', "sh"]
        elif variant != ERROR:  # which writes nothing
            log = self._folder / f"log-{level}"
        service = self._world.start(self._world.document(self._cloud.discovery_url, level=level, log_path=log),
                                    wrapper=wrapper)
        service.wait_listening()
        reply = wait_until(lambda: token_reply(service.api), "a token")
        self._reply.write_bytes(frame(reply))
        if log:
            (log,) = self._folder.glob(f"log-{level}-*")
        return Server(service.process.pid, service.api.port, log, reader)

    def ask(self, server, clients, cpu, seconds, requests=NO_LIMIT):
        """One run of the load generator: what it prints, and the server's CPU time and context switches."""
        if server.log:  # so that no run pays for writing to the disk what another one left
            os.truncate(server.log, 0)
        if server.log_reader:
            os.sched_setaffinity(server.log_reader.pid, {cpu})
        cpu_before, switches_before = server.cpu_microseconds(), server.context_switches()
        printed = subprocess.run(["taskset", "-c", str(cpu), self._programs / "load", str(server.port), self._request,
                                  self._reply, str(clients), str(seconds), str(requests)],
                                 check=True, stdout=subprocess.PIPE, timeout=seconds + 20)
        run = json.loads(printed.stdout)
        if requests not in (run["requests"], NO_LIMIT):
            raise RuntimeError(f"{run['requests']} of {requests} requests in {seconds} s")
        run["cpu"] = (server.cpu_microseconds() - cpu_before) / run["requests"]
        run["switches"] = (server.context_switches() - switches_before) / run["requests"]
        return run


def token_reply(api):
    """None until the service is ready."""
    reply = api.exchange(REQUEST)
    return reply if json.loads(reply) == {"status": "ok", "token": TOKEN} else None


def two_cores():
    """A CPU for the server and one of another core for the client: None when there is no other."""
    def core(cpu):
        topology = pathlib.Path(f"/sys/devices/system/cpu/cpu{cpu}/topology")
        return [topology.joinpath(name).read_text() for name in ("physical_package_id", "core_id")]

    *others, server = sorted(os.sched_getaffinity(0))
    return server, next((cpu for cpu in others if core(cpu) != core(server)), None)


def against_bare(bench, rounds, seconds):
    """In each round the bare server and every variant of the service have their run, one after another."""
    variants = {variant: bench.service(variant) for variant in (ERROR, INFO, DEBUG, PIPE)}
    servers = {"bare": bench.bare(), **variants}
    rows = []
    for place, cpu in (("different cores", bench.client_cpu), ("same core", bench.server_cpu)):
        for clients in (1, 4) if cpu is not None else ():
            runs = {name: [] for name in servers}
            for _ in range(rounds):
                for name, server in servers.items():
                    runs[name].append(bench.ask(server, clients, cpu, seconds))
            setting = f"{clients} client{'s' * (clients > 1)}, {place}"
            rows += [row(variant, setting, *FIGURES[figure], [run[figure] for run in runs[variant]],
                         "bare", [run[figure] for run in runs["bare"]], **GOALS.get((variant, figure), {}))
                     for variant in variants for figure in FIGURES]
    return sorted(rows, key=lambda row: list(variants).index(row["name"]))


def growth(bench, requests, few=2_000):
    server = bench.service(ERROR)
    cpu = bench.server_cpu if bench.client_cpu is None else bench.client_cpu
    bench.ask(server, 4, cpu, 120, few)
    before = server.memory()
    bench.ask(server, 4, cpu, 120, requests - few)
    rows = []
    for figure, early, late in zip(("RSS", "PSS"), before, server.memory()):
        rows += [row(ERROR, f"after {few:,} requests", figure, "KiB", [early]),
                 row(ERROR, f"after {requests:,} requests", figure, "KiB", [late])]
        if figure == "RSS":
            rows.append(row(ERROR, f"{few:,} to {requests:,} requests", "growth of RSS", "KiB", [late - early],
                            at_most=64))
    return [*rows, kept_memory(server)]


def kept_memory(server):
    """What requests for each of which the service takes some 30 MiB leave behind."""
    before, _ = server.memory()
    for _ in range(3):
        ApiClient(server.port).exchange("[" + 400_000 * "1," + "1]")
    after, _ = server.memory()
    return row(ERROR, "three requests of 0.8 MB", "growth of RSS", "KiB", [after - before], at_most=1024, exact=True)


def print_system_calls(bench, requests=2_000):
    """The average of many requests, as a table in Markdown."""
    services = {variant: bench.service(variant) for variant in (ERROR, INFO)}
    counts = {name: system_calls(bench, server, requests)
              for name, server in {"bare": bench.bare(), **services}.items()}
    print("| system calls per request |", *(f"{name} |" for name in counts))
    print("|---" * (1 + len(counts)) + "|")
    for call in [*sorted(set().union(*counts.values())), "all"]:
        averages = [round((sum(count.values()) if call == "all" else count.get(call, 0)) / requests, 2)
                    for count in counts.values()]
        if any(averages):
            print(f"| {call} |", *(f"{average:g} |" for average in averages))


def system_calls(bench, server, requests):
    """How often each was called while the requests were served."""
    tracer = subprocess.Popen(["strace", "-f", "-c", "-o", "/dev/stdout", "-p", str(server.process)],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    with tracer:
        try:
            line = tracer.stderr.readline()
            if "attached" not in line:
                raise RuntimeError(f"strace: {line}")
            bench.ask(server, 1, bench.server_cpu, 120, requests)
        finally:
            tracer.send_signal(signal.SIGINT)
        table = [line.split() for line in tracer.stdout.read().splitlines()]
    return {columns[-1]: int(columns[3]) for columns in table if len(columns) >= 5 and columns[3].isdigit()
            and columns[-1] != "total"}


if __name__ == "__main__":
    main()
