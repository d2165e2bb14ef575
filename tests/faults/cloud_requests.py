"""The three requests to the cloud: how a fault is brought about, what is said about it, and how a cell is judged."""

import re
from functools import partial

from cells import READY, RETRYING, UNCHANGED, Cell, files_in
from support.curl_text import curl_texts
from support.exchanges import TOKEN_REFUSED, token_request
from support.fake_cloud import TOKEN_PATH, WELL_KNOWN_PATH
from support.framing import frame
from support.http_server import as_bytes
from support.log import debug, error, expect_waited, info
from support.texts import CLIENT, DISCOVERY, READY as CLOUD_FOUND, cloud_failed, token_failed
from support.waiting import DEADLINE_SECONDS

TIME_LIMIT_SECONDS = 30
MOST_KILOBYTES = 24 * 1024  # of memory, at any time: a reply may have 2 MiB, and is copied while it is read
ANY_TOKEN = re.compile(r"access\\/\d+")
TOKEN_GIVEN = r'{"status":"ok","token":"{token}"}'

# The requests, by the member of FakeCloud that names their URL.
DISCOVERING = "discovery_url"
LOOKING_UP = "well_known_in_payload"
ASKING_TOKEN = "token_endpoint"


def path_of(cloud, request):
    return {DISCOVERING: cloud.discovery_path, LOOKING_UP: WELL_KNOWN_PATH, ASKING_TOKEN: TOKEN_PATH}[request]


# --- bringing a fault about: made by cell.script(world, cloud, request)

class Scripted:
    """The request gets this reply, or the one that `reply` makes of the body that it usually gets."""

    def __init__(self, _world, cloud, request, reply):
        self._cloud = cloud
        self._path = path_of(cloud, request)
        self._reply = reply
        self.options = {}  # for the start of the service

    def begin(self):
        reply = self._reply
        if callable(reply):
            reply = reply(as_bytes(self._cloud.usual(self._path).body))
        self._cloud.script(self._path, reply)

    def end(self):
        self._cloud.unscript()


class Refused:
    """Nobody listens where the cloud was."""
    options = {}

    def __init__(self, _world, cloud, _request):
        self.begin, self.end = cloud.refuse, cloud.listen


def scripted(reply):
    return partial(Scripted, reply=reply)


# --- what is said about it, and the cells that say it

def discovery_cell(fault, lines, cause, script):
    """A discovery that fails for this cause, without a backup file."""
    told = without_slashes(f"Couldn't retrieve configuration from the cloud: {cause} Cloud config caching not enabled")
    return Cell(fault, (*lines, cloud_failed(cause)),
                f'{{"status":"error","message":"Cloud discovery failed. {told}"}}', RETRYING, script=script)


def backup_cell(fault, lines, cause, script):
    """The same with a backup file that is good."""
    restored = info(DISCOVERY, "Cloud config data successfully retrieved from {backup}")
    return Cell(fault, (*lines, cloud_failed(cause, caching=True), restored, CLOUD_FOUND), TOKEN_GIVEN, READY,
                UNCHANGED, script=script)


def token_cell(fault, lines, script):
    """A token request that fails, at the lookup or later."""
    return Cell(fault, (*lines, token_failed()), TOKEN_REFUSED.decode(), READY, UNCHANGED, script=script)


def without_slashes(text):
    """As in the replies' JSON."""
    return text.replace("/", "\\/")


def transfer_failed(source, name):
    return error(source, f"curl_easy_perform() failed: {{{name}}}")


def failed_discovery(outcome):
    """(lines, cause) of libcurl's error of this name, or of an HTTP status."""
    if isinstance(outcome, str):
        return ([transfer_failed(DISCOVERY, outcome)],
                f"Couldn't retrieve discovery data from {{url}} Curl failed. Error: {{{outcome}}}")
    line = debug(DISCOVERY, f"Discovery request, Curl response code: {outcome}")
    return ([line, line._replace(level="error")],
            f"Couldn't retrieve discovery data from {{url}}. Curl returned: {outcome}")


def failed_token(outcome):
    if isinstance(outcome, str):
        return [transfer_failed(CLIENT, outcome)]
    line = debug(CLIENT, f"Curl response code: {outcome}")
    return [line, line._replace(level="error")]


# --- judging

class DiscoveryAttempt:
    """The first discovery of a service, for which everything but the fault of the cell is in order."""

    def __init__(self, world, cell, with_backup=False):
        self._cloud = world.new_cloud()
        self._fault = cell.script(world, self._cloud, DISCOVERING)
        self._folder = world.new_folder(f"discovery-{cell.name}-{'with' if with_backup else 'without'}")
        self._backup = self._folder / f"{self._cloud.device.id}.cfg"
        document = world.document(self._cloud.discovery_url, cache_folder=self._folder)
        document["sso"]["cloud_config"]["cache_enabled"] = with_backup
        if with_backup:
            self._backup.write_bytes(self._cloud.discovery_body())
        self._before = files_in(self._folder)
        self._retries = cell.state == RETRYING
        self._fault.begin()
        self._service = world.start(document, **self._fault.options)

    def check(self, judge, patience=DEADLINE_SECONDS):
        """Returns the entries between which the time passed that it took to fail."""
        service = self._service
        values = {**curl_texts(), "url": self._cloud.discovery_url, "backup": self._backup}
        failed, *_ = judge.log(service, patience=patience, **values)
        if self._retries:
            service.wait_failed()
        else:
            service.wait_ready()
        service.wait_listening()
        self._fault.end()
        judge.reply(service.api.exchange(token_request()), token=ANY_TOKEN,
                    **{name: without_slashes(str(value)) for name, value in values.items()})
        finish(judge, service, self._before, files_in(self._folder))
        return service.log.wait_for(DISCOVERY, re.compile("Making discovery request to .*")), failed


class TokenAttempt:
    """A token request to a service that is ready, with a backup file, and knows its token endpoint unless it is the
    lookup that the fault is about."""

    def __init__(self, world, cell, request):
        self.cloud = world.new_cloud()
        self._fault = cell.script(world, self.cloud, request)
        self._folder = world.new_folder(f"{request}-{cell.name}")
        document = world.document(self.cloud.discovery_url, cache_folder=self._folder)
        self._service = world.start(document, **self._fault.options).wait_ready()
        if request == ASKING_TOKEN:
            self._service.api.token_text("first")
        self._before = files_in(self._folder)
        self._fault.begin()
        self._since = self._service.log.mark()
        self._connection = self._service.api.connect()
        self._connection.send(frame(token_request().encode()))

    def check(self, judge, patience=DEADLINE_SECONDS, **values):
        """Returns the entries between which the time passed that it took to fail."""
        service = self._service
        failed, *_ = judge.log(service, self._since, patience, **curl_texts(), **values)
        with self._connection:
            judge.reply(self._connection.receive_frame(), token=ANY_TOKEN)
        self._fault.end()
        service.api.token_text("afterwards")
        finish(judge, service, self._before, files_in(self._folder))
        return service.log.entries(self._since)[0], failed


def finish(judge, service, before, after):
    judge.state(service)
    judge.files(before, after)
    assert service.peak_memory_kilobytes() < MOST_KILOBYTES
    judge.status(service)


def check_time_limit(attempt, judge):
    expect_waited(TIME_LIMIT_SECONDS, *attempt.check(judge, TIME_LIMIT_SECONDS + 15))
