"""Where the log goes, how its lines look, and which levels it shows."""

import calendar
import re
import threading
import time

import pytest

from support.api_client import ApiClient
from support.configuration import REMOVED, changed
from support.log import LEVELS, Log
from support.texts import API, CLIENT, DISCOVERY, MANAGER, STOPPED, configured, initialised
from support.waiting import wait_until

MONTHS = "Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec"
ASCTIME = rf"(Mon|Tue|Wed|Thu|Fri|Sat|Sun) ({MONTHS}) [ \d]\d \d\d:\d\d:\d\d \d{{4}}"
FILE_NAME = r"-\d{4}-\d\d-\d\d-\d\d-\d\d-\d\d\.log"


def start_with_file(world, cloud, prefix, **more):
    service = world.start(world.document(cloud.discovery_url, log_path=prefix), **more)
    folder, _, name = str(prefix).rpartition("/")
    folder = service.folder / folder if folder else service.folder
    files = wait_until(lambda: list(folder.glob(name + "-*.log")), "a log file")
    service.log = Log(files[0])
    return service.wait_ready()


def test_log_file_is_named_by_its_prefix_and_the_time_and_standard_output_stays_empty(world, cloud):
    service = start_with_file(world, cloud, world.new_folder("logs") / "sso")
    assert re.fullmatch("sso" + FILE_NAME, service.log.path.name)
    service.expect_main_log([*configured(service), *initialised(cloud)])
    service.stop()
    assert service.stdout_path.read_bytes() == b""
    assert len(list(service.log.path.parent.iterdir())) == 1


def test_relative_log_path_lies_in_the_working_directory(world, cloud):
    service = start_with_file(world, cloud, "relative")
    assert service.log.path.parent == service.folder


def test_log_starts_with_its_start_line_and_has_no_end_line(world, cloud):
    service = start_with_file(world, cloud, world.new_folder("logs") / "sso")
    service.stop()
    first, *_, last, end = service.log.raw().decode().split("\n")
    assert re.fullmatch("LOG START " + ASCTIME, first)
    assert last.endswith("SSO Discovery Service terminated") and end == ""


def test_file_name_start_line_and_stamps_are_in_local_time(world, cloud):
    """Nine and a half hours ahead: neither the hour nor the minute can be right by chance."""
    offset = int(9.5 * 3600)
    service = start_with_file(world, cloud, world.new_folder("logs") / "sso", environment={"TZ": "TEST-09:30"})

    def off(text, form):
        return calendar.timegm(time.strptime(text, form)) - (time.time() + offset)

    named = service.log.path.name[len("sso-"):-len(".log")]
    started = service.log.preamble[0][len("LOG START "):]
    assert abs(off(named, "%Y-%m-%d-%H-%M-%S")) < 60
    assert abs(off(started, "%a %b %d %H:%M:%S %Y")) < 60
    day = time.strftime("%Y-%m-%d ", time.gmtime(time.time() + offset))
    rest = off(day + service.log.entries()[0].stamp[:8], "%Y-%m-%d %H:%M:%S")
    assert abs((rest + 43200) % 86400 - 43200) < 60


def test_second_start_within_a_second_begins_the_same_file_anew(world):
    """Both end at once for want of a cloud section, so that neither writes into the other's file."""
    for number in range(10):
        prefix = world.new_folder(f"logs-{number}") / "sso"
        for _ in range(2):
            world.start({"sso": {"log_level": "info", "log_path": str(prefix)}}).expect_exit(1)
        files = list(prefix.parent.iterdir())
        if len(files) == 1:  # otherwise the second was over in between
            assert files[0].read_bytes().count(b"LOG START ") == 1
            return
    raise AssertionError("ten times two starts never met the same second")


def test_every_line_has_a_stamp_and_a_position(world, cloud):
    service = world.start_ready(cloud)
    service.stop()
    start, *lines = service.log.raw().decode().splitlines()
    assert re.fullmatch("LOG START " + ASCTIME, start)
    strange = [line for line in lines if not re.match(r"\d\d:\d\d:\d\d\.\d{3} \[[A-Za-z/]+:\d+\] ", line)]
    assert not strange
    assert len(lines) > 30


@pytest.mark.parametrize("value", [REMOVED, "", 5, None, {}], ids=["missing", "empty", "5", "null", "object"])
def test_without_a_log_path_the_log_goes_to_standard_output_with_a_warning(world, cloud, value):
    service = world.start(changed(world.document(cloud.discovery_url, log_path=""), "sso.log_path", value))
    service.wait_ready()
    assert service.log.pairs()[0] == (MANAGER, f"No sso.log_file specified in configuration file "
                                      f"{service.configuration_path}. Using stdout instead")
    assert service.log.preamble[0].startswith("LOG START ")


@pytest.mark.parametrize("level, visible", [("error", False), ("warning", True), ("info", True), ("debug", True),
                                            ("verbose", True)])
def test_the_warning_about_standard_output_is_a_warning(world, cloud, level, visible):
    service = world.start_ready(cloud, level)
    warned = any(text.startswith("No sso.log_file specified") for _, text in service.log.pairs())
    assert warned == visible


def test_file_that_cannot_be_created_is_reported_and_standard_output_is_used(world, cloud):
    prefix = world.folder / "nonexistent" / "x"
    service = world.start(world.document(cloud.discovery_url, log_path=prefix))
    service.expected_stderr = re.compile(
        f"Attempted to create log {re.escape(str(prefix))}{FILE_NAME}\n"
        r" Cannot open log file, using stdout instead : No such file or directory\n")
    service.wait_ready()
    assert service.log.raw().startswith(b"LOG START ")
    service.expect_main_log([*configured(service), *initialised(cloud)])
    service.stop()


@pytest.mark.parametrize("level", ["ERROR", "Info", "", "trace", "0", "5", "verbose ", "off"])
def test_an_unknown_level_turns_logging_off_and_the_service_works(world, cloud, level):
    prefix = world.new_folder("logs") / "sso"
    service = world.start(world.document(cloud.discovery_url, level=level, log_path=prefix)).wait_ready()
    assert service.api.exchange("hello") == b'{"status":"error","message":"Input is not a valid object"}'
    assert service.api.token_text() == "access/1"
    service.stop()
    assert service.stdout_path.read_bytes() == b""
    assert not list(prefix.parent.iterdir())


def test_an_unknown_level_without_a_path_writes_nothing_to_standard_output(world, cloud):
    service = world.start_ready(cloud, level="ERROR")
    service.stop()
    assert service.stdout_path.read_bytes() == b""


def test_each_level_shows_its_own_messages_and_those_above(world, cloud):
    samples = {  # a message of each level that a whole run brings
        "error": (API, "Invalid request format: Input is not a valid object"),
        "warning": None,
        "info": (DISCOVERY, f"Making discovery request to {cloud.discovery_url}"),
        "debug": (CLIENT, f"found token_endpoint: {cloud.token_endpoint}"),
        "verbose": (DISCOVERY, "string offset : 0"),
    }
    for number, level in enumerate(LEVELS):
        service = world.start_ready(cloud, level)
        service.api.exchange("hello")
        service.api.token_text()
        service.stop()
        written = set(service.log.pairs())
        samples["warning"] = (MANAGER, f"No sso.log_file specified in configuration file {service.configuration_path}. "
                                       "Using stdout instead")
        assert [name for name in LEVELS if samples[name] in written] == list(LEVELS[:number + 1])


@pytest.mark.parametrize("level, lines", [("error", []), ("warning", []), ("info", STOPPED)])
def test_stop_messages_are_shown_from_info(world, cloud, level, lines):
    service = world.start_ready(cloud, level)
    since = service.log.mark()
    service.stop()
    service.expect_log(lines, since)


def test_an_argument_that_ends_in_a_line_end_gets_one_more(world, cloud):
    service = world.start_ready(cloud)
    since = len(service.log.raw())
    service.api.exchange('{"request":"certificate_id"}\n')
    text = service.log.raw()[since:].decode()
    assert re.search(r'\] Processing request \{"request":"certificate_id"\}\n\n\d\d:', text)


def test_texts_from_outside_are_never_formats(world, cloud):
    service = world.start_ready(cloud)
    since = service.log.mark()
    name = "%s%n%d%100000d%"
    assert service.api.request(name) == {"status": "error", "message": f"unsupported request: {name}"}
    assert (API, f'Processing request {{"request": "{name}"}}') in service.log.pairs(since)


def test_lines_of_two_threads_never_mix(world, cloud):
    """Each endpoint echoes its own long letter into the log while the other does the same."""
    ports = [world.new_port(), world.new_port()]
    service = world.start(world.document(cloud.discovery_url, ports=ports)).wait_ready()
    since = service.log.mark()

    def talk(port, letter):
        for _ in range(30):
            ApiClient(port).request(letter * 5000)

    threads = [threading.Thread(target=talk, args=pair) for pair in zip(ports, "ab")]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    texts = [text for _, text in service.log.pairs(since) if text.startswith("Processing request ")]
    whole = ['Processing request {"request": "%s"}' % (letter * 5000) for letter in "ab"]
    assert sorted(texts) == sorted(whole * 30)


def test_private_key_text_is_never_logged(world, cloud):
    key_service = world.new_key_service()
    for provider in (None, {"type": "Orvex", "port": key_service.port}):
        service = world.start(world.document(cloud.discovery_url, provider)).wait_ready()
        service.api.token_text()
        service.stop()
        log = service.log.raw()
        assert b"PRIVATE KEY" not in log
        assert not any(line in log for line in world.device.key_pem.splitlines()[1:-1] if len(line) > 20)
