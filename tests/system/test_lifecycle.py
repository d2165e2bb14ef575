"""Command line, environment, exit statuses, and stop signals in every state."""

import random
import signal
import subprocess
import threading
import time

import pytest

from support.api_client import hammer
from support.configuration import REMOVED, changed, orvex_provider
from support.exchanges import token_request
from support.fake_cloud import TOKEN_PATH, WELL_KNOWN_PATH
from support.fake_key_service import CERTIFICATE, Answer
from support.framing import frame
from support.http_server import Reply
from support.service import clean_environment
from support.texts import (API, CONFIGURATION_FAILED, MANAGER, NO_PROVIDER, ORVEX, STOPPED, cloud_failed, configured,
                           discovery_status, initialised, retried)
from support.waiting import MARGIN_SECONDS

STOP_SIGNALS = pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT], ids=lambda number: number.name)


@pytest.mark.parametrize("name", ["sso-discovery-service", "./another name", "/opt/x/y"])
def test_no_argument_prints_usage_with_the_invocation_name(executable, name):
    ended = subprocess.run([name], executable=executable, env=clean_environment(), capture_output=True, timeout=20)
    assert ended.returncode == 1
    assert ended.stderr == f"Usage: {name} <json_config_file>\n".encode()
    assert ended.stdout == b""


def test_further_arguments_are_ignored(world, cloud):
    service = world.start(world.document(cloud.discovery_url), arguments=["--help", "/nonexistent"]).wait_ready()
    service.expect_main_log([*configured(service), *initialised(cloud)])
    service.stop()


@pytest.mark.parametrize("value", [None, "", "prod", "staging", "100%s %n", "two words"])
def test_cloud_environment_is_logged(world, value):
    service = world.start(None, environment={} if value is None else {"CLOUD_ENV": value})
    service.expect_exit(1)
    assert (MANAGER, f"CLOUD_ENV: {value or ''}") in service.log.pairs()


def test_missing_configuration_file_is_reported_twice_and_ends_with_status_1(world):
    service = world.start(None)
    service.expect_exit(1)
    unable = (MANAGER, f"Unable to open configuration file {service.configuration_path}")
    assert service.log.pairs() == [unable, (MANAGER, "CLOUD_ENV: "), unable, (NO_PROVIDER.source, NO_PROVIDER.text)]
    assert service.log.preamble[0].startswith("LOG START ")


def test_provider_without_api_providers_ends_with_status_1(world, cloud):
    service = world.start(changed(world.document(cloud.discovery_url), "sso.api_providers", REMOVED))
    service.expect_exit(1)
    assert service.log.pairs()[-2:] == [
        (MANAGER, "Configuration file is missing sso.api_providers ARRAY section"),
        (CONFIGURATION_FAILED.source, CONFIGURATION_FAILED.text)]
    assert not cloud.requests()


def test_configuration_failure_ends_with_status_1_though_an_api_thread_runs(world, cloud):
    document = world.document(cloud.discovery_url, ports=[world.new_port(), world.new_port()])
    service = world.start(changed(document, "sso.api_providers.1.type", "pipe"))
    service.expect_exit(1)
    assert service.log.pairs(without=API)[-4:] == [
        (MANAGER, "SSO Provider type: pipe"), (MANAGER, "Unsupported certificate provider type: "),
        (MANAGER, "SSO API Provider couldn't be configured "),
        (CONFIGURATION_FAILED.source, CONFIGURATION_FAILED.text)]


def test_local_api_is_served_before_discovery_has_succeeded(world, cloud):
    gate = cloud.hold(cloud.discovery_path)
    service = world.start(world.document(cloud.discovery_url))
    gate.wait_arrived()
    service.wait_listening()
    assert service.api.exchange("{}") == b'{"status":"error","message":"request not specified"}'
    gate.release()
    service.wait_ready()


@STOP_SIGNALS
def test_stop_when_ready_ends_at_once_with_status_0(world, cloud, number):
    service = world.start_ready(cloud)
    since = service.log.mark()
    began = time.monotonic()
    service.stop(number)
    assert time.monotonic() - began < MARGIN_SECONDS
    service.expect_log(STOPPED, since)
    assert b"LOG END" not in service.log.raw()


@STOP_SIGNALS
def test_stop_while_waiting_to_retry_runs_one_more_attempt(world, cloud, number):
    cloud.script(cloud.discovery_path, Reply(503))
    service = world.start(world.document(cloud.discovery_url))
    service.wait_failed()
    reason = f"Couldn't retrieve discovery data from {cloud.discovery_url}. Curl returned: 503"
    since = service.log.mark()
    service.stop(number)
    received, terminated = STOPPED
    service.expect_log([received, *retried(cloud), *discovery_status(503), cloud_failed(reason), terminated], since)
    assert len(cloud.requests(cloud.discovery_path)) == 2


def test_attempt_after_the_stop_may_still_succeed(world, cloud):
    cloud.script(cloud.discovery_path, Reply(503), None)
    service = world.start(world.document(cloud.discovery_url))
    service.wait_failed()
    since = service.log.mark()
    service.stop()
    assert service.log.pairs(since)[-2:] == [
        (MANAGER, "Cloud config successfully retrieved. Creating SsoClient"),
        (MANAGER, "SSO Discovery Service terminated")]


@STOP_SIGNALS
def test_stop_during_discovery_ends_with_status_0_when_the_cloud_answers(world, cloud, number):
    gate = cloud.hold(cloud.discovery_path)
    service = world.start(world.document(cloud.discovery_url))
    gate.wait_arrived()
    service.send_signal(number)
    gate.release()
    service.expect_exit(0)
    assert service.log.pairs()[-1] == (MANAGER, "SSO Discovery Service terminated")


def test_stop_during_a_stalled_key_exchange_ends_with_status_0_when_it_ends(world, cloud):
    key_service = world.new_key_service()
    key_service.script(CERTIFICATE, Answer(ending="hold"))
    service = world.start(world.document(cloud.discovery_url, orvex_provider(key_service.port)))
    service.log.wait_for(ORVEX, "Orvex Key Certificate request sent 11 bytes")
    service.send_signal()
    key_service.close()
    service.expect_exit(0)


@STOP_SIGNALS
@pytest.mark.parametrize("path", [WELL_KNOWN_PATH, TOKEN_PATH])
def test_stop_with_a_token_request_in_flight_ends_at_once_with_status_0(world, cloud, path, number):
    service = world.start_ready(cloud)
    gate = cloud.hold(path)
    with service.api.connect() as connection:
        connection.send(frame(token_request().encode()))
        gate.wait_arrived()
        began = time.monotonic()
        service.stop(number)
        assert time.monotonic() - began < MARGIN_SECONDS
    assert service.log.pairs()[-2:] == [(line.source, line.text) for line in STOPPED]


@pytest.mark.parametrize("sent", [b"", b"\0\0", frame(b"{}", 10), frame(b'{"request":"reset"}')],
                         ids=["silent", "half a length", "half a payload", "reply unread"])
def test_stop_with_a_client_connected_ends_with_status_0(world, cloud, sent):
    service = world.start_ready(cloud)
    with service.api.connect() as connection:
        connection.send(sent)
        service.stop()


def test_stop_while_a_client_does_not_read_its_reply_ends_with_status_0(world, cloud):
    service = world.start_ready(cloud, level="error")
    with service.api.connect(small_buffers=True) as connection:
        connection.send(frame(b'{"request":"%s"}' % (b"/" * 1000000)))
        connection.receive(4)
        service.stop()


def test_stop_right_after_a_reset_ends_with_status_0(world, cloud):
    service = world.start_ready(cloud)
    assert service.api.request("reset") == {"status": "ok"}
    service.stop()


def test_stop_while_a_taken_port_is_waited_for_ends_at_once(world, cloud):
    port = world.reserve_port()
    port.listen()
    service = world.start(world.document(cloud.discovery_url, ports=[port.number]))
    service.log.wait_for(API, "SSO API socket bind failed ")
    service.log.wait_for(MANAGER, "Cloud config successfully retrieved. Creating SsoClient")
    began = time.monotonic()
    service.stop()
    assert time.monotonic() - began < MARGIN_SECONDS


def test_several_stop_signals_are_one_stop(world, cloud):
    gate = cloud.hold(cloud.discovery_path)
    service = world.start(world.document(cloud.discovery_url))
    gate.wait_arrived()
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGTERM):
        service.send_signal(number)
    gate.release()
    service.expect_exit(0)
    assert service.log.count(MANAGER, "SSO Discovery Service terminated") == 1


def test_stop_without_any_api_provider_ends_with_status_0(world, cloud):
    service = world.start(world.document(cloud.discovery_url, ports=[]))
    service.log.wait_for(MANAGER, "Cloud config successfully retrieved. Creating SsoClient")
    service.stop()
    assert not service.log.pairs(only=API)


def test_stops_at_random_instants_under_load_end_with_status_0(world, cloud):
    seed = random.randrange(2 ** 32)
    print(f"seed {seed}")
    generator = random.Random(seed)
    ports = [world.new_port(), world.new_port()]
    requests = ['{"request":"token","scope":"a"}', '{"request":"data"}', '{"request":"certificate_id"}',
                '{"request":"token","scope":"b"}', "{", '{"request":"reset"}']
    for _ in range(40):
        cloud.expires_in = generator.choice([3600, 20, 5])  # from the cache, at its edge, never
        service = world.start(world.document(cloud.discovery_url, ports=ports, level="info"))
        service.log.wait_for(MANAGER, "CLOUD_ENV: ")  # the handler stands from here on
        over = threading.Event()
        clients = [threading.Thread(target=hammer, args=(port, requests, over)) for port in ports]
        for client in clients:
            client.start()
        time.sleep(generator.uniform(0, 0.15))
        service.send_signal()
        status = service.wait_exit()
        over.set()
        for client in clients:
            client.join()
        assert status == 0, service.evidence()
