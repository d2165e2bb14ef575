"""What the manager's states mean for a client: not ready, failed, ready, reset."""

import time

import pytest

from support.api_client import ApiClient
from support.exchanges import RESET_CONFIRMED, TOKEN_REFUSED, token_request
from support.fake_cloud import TOKEN_PATH, WELL_KNOWN_PATH
from support.framing import frame
from support.http_server import Reply
from support.log import LEVELS, error, info, seconds_between
from support.texts import (API, CONFIGURING, MANAGER, READY, STOPPED, cloud_failed, configured,
                           discovery_status, first_request, good_reply, initialised, request_received, retried,
                           retrying, token_failed, without_cache)
from support.waiting import MARGIN_SECONDS

NOT_READY = {
    token_request(): ("Cloud discovery failed. ", "SSO API Getting access token failed {}"),
    '{"request":"data"}': ("Cloud discovery failed. ", "SSO API Getting discovery data failed"),
    '{"request":"certificate_id"}': ("Cloud discovery failed. System is not initialized",
                                     "SSO API Getting certificate id failed"),
}


def refusal(request, reason):
    """The reply to a request while not ready, and the error line that goes with it."""
    text, logged = NOT_READY[request]
    escaped = (text + reason).replace("/", "\\/")
    return f'{{"status":"error","message":"{escaped}"}}'.encode(), error(API, logged.format(text + reason))


def expect_refused(service, request, reason):
    since = service.log.mark()
    reply, line = refusal(request, reason)
    assert service.api.exchange(request) == reply
    service.expect_log([*request_received(request), line], since)


@pytest.fixture
def failing(world, cloud):
    """A service whose first discovery has failed."""
    cloud.script(cloud.discovery_path, Reply(404))
    service = world.start(world.document(cloud.discovery_url))
    service.wait_failed()
    service.wait_listening()
    return service


@pytest.mark.parametrize("level", LEVELS)
@pytest.mark.parametrize("request_text", NOT_READY)
def test_request_during_the_first_discovery_is_refused_without_waiting(world, cloud, request_text, level):
    gate = cloud.hold(cloud.discovery_path)
    service = world.start(world.document(cloud.discovery_url, level=level))
    gate.wait_arrived()
    service.wait_listening()
    service.api.exchange("{}")
    expect_refused(service, request_text, "")
    gate.release()
    service.wait_ready()


@pytest.mark.parametrize("request_text", NOT_READY)
def test_request_after_a_failed_discovery_is_refused_with_its_reason(failing, cloud, request_text):
    failing.api.exchange("{}")
    reason = without_cache(f"Couldn't retrieve discovery data from {cloud.discovery_url}. Curl returned: 404")
    expect_refused(failing, request_text, reason)


def test_reset_after_a_failed_discovery_is_confirmed_and_changes_nothing(failing, cloud):
    failing.api.exchange("{}")
    since = failing.log.mark()
    assert failing.api.exchange('{"request":"reset"}') == b'{"status":"ok"}'
    failing.expect_log([*request_received('{"request":"reset"}'), RESET_CONFIRMED], since)
    assert len(cloud.requests()) == 1


def test_failed_initialisation_is_logged_from_start_to_retry(failing, cloud):
    reason = f"Couldn't retrieve discovery data from {cloud.discovery_url}. Curl returned: 404"
    failing.expect_main_log([*configured(failing), *first_request(cloud.discovery_url), *discovery_status(404),
                             cloud_failed(reason), retrying(without_cache(reason))])


def test_successful_initialisation_is_logged_from_start_to_stop(world, cloud):
    service = world.start_ready(cloud)
    service.stop()
    service.expect_main_log([*configured(service), *initialised(cloud), *STOPPED])


def test_nothing_is_asked_of_the_identity_provider_before_a_token_is_wanted(world, cloud):
    service = world.start_ready(cloud)
    service.api.request("data")
    assert [request.target for request in cloud.requests()] == [cloud.discovery_path]


def test_reset_of_a_ready_service_repeats_the_whole_discovery(world, cloud):
    service = world.start_ready(cloud)
    assert [service.api.token_text(), service.api.token_text()] == ["access/1", "access/1"]
    since = service.log.mark()
    assert service.api.exchange('{"request":"reset"}') == b'{"status":"ok"}'
    service.expect_log([*request_received('{"request":"reset"}'), RESET_CONFIRMED], since, only=API)
    service.wait_ready(since)
    service.expect_log([info(MANAGER, "Reseting SSO Manager"), *retried(cloud), *good_reply(cloud), READY], since,
                       without=API)
    resetting = service.log.wait_for(MANAGER, "Reseting SSO Manager", since)
    assert seconds_between(resetting, service.log.wait_for(MANAGER, CONFIGURING.text, since)) < MARGIN_SECONDS
    assert service.api.token_text() == "access/2", "the cached tokens went with the reset"
    for path, count in [(cloud.discovery_path, 2), (WELL_KNOWN_PATH, 2), (TOKEN_PATH, 2)]:
        assert len(cloud.requests(path)) == count


def test_second_reset_right_after_the_first_is_confirmed_without_effect(world, cloud):
    service = world.start_ready(cloud)
    gate = cloud.hold(cloud.discovery_path)  # so that the service is not ready again in between
    since = service.log.mark()
    assert service.api.exchange('{"request":"reset"}') == b'{"status":"ok"}'
    assert service.api.exchange('{"request":"reset"}') == b'{"status":"ok"}'
    gate.wait_arrived()
    assert service.api.exchange('{"request":"reset"}') == b'{"status":"ok"}'
    assert service.log.count(MANAGER, "Reseting SSO Manager", since) == 1
    gate.release()
    service.wait_ready(since)
    assert len(cloud.requests(cloud.discovery_path)) == 2


@pytest.mark.parametrize("request_text", NOT_READY)
def test_request_between_reset_and_new_discovery_is_refused_without_a_reason(world, cloud, request_text):
    service = world.start_ready(cloud)
    gate = cloud.hold(cloud.discovery_path)
    service.api.request("reset")
    assert service.api.exchange(request_text) == refusal(request_text, "")[0]
    gate.wait_arrived()
    assert service.api.exchange(request_text) == refusal(request_text, "")[0]
    gate.release()
    service.wait_ready()


def test_failure_after_a_reset_is_told_like_any_other(world, cloud):
    service = world.start_ready(cloud)
    cloud.script(cloud.discovery_path, Reply(500))
    since = service.log.mark()
    service.api.request("reset")
    reason = f"Couldn't retrieve discovery data from {cloud.discovery_url}. Curl returned: 500"
    assert service.wait_failed(since) == without_cache(reason)
    assert service.api.token() == {"status": "error",
                                   "message": "Cloud discovery failed. " + without_cache(reason)}


def test_token_failure_while_ready_gives_the_generic_text_and_the_state_stays(world, cloud):
    service = world.start_ready(cloud)
    cloud.script(TOKEN_PATH, Reply(500), None)
    since = service.log.mark()
    assert service.api.exchange(token_request()) == TOKEN_REFUSED
    assert service.log.pairs(since, only=API)[-1] == (API, token_failed().text)
    assert service.api.request("certificate_id") == {"status": "ok", "certificate_id": "device-0001"}
    assert service.api.token_text() == "access/1"
    assert (MANAGER, CONFIGURING.text) not in service.log.pairs(since)


def test_nothing_is_logged_about_a_cloud_url_of_the_provider(world, cloud):
    service = world.start_ready(cloud)
    service.stop()
    assert not [text for _, text in service.log.pairs() if text.startswith("Cloud config URL")]


def test_token_request_holds_back_requests_of_another_endpoint(world, cloud):
    ports = [world.new_port(), world.new_port()]
    service = world.start(world.document(cloud.discovery_url, ports=ports)).wait_ready()
    gate = cloud.hold(TOKEN_PATH)
    first, second = (ApiClient(port).connect() for port in ports)
    with first, second:
        first.send(frame(token_request().encode()))
        gate.wait_arrived()
        second.send(frame(b'{"request":"certificate_id"}'))
        assert second.has_nothing_for(0.3)
        gate.release()
        assert first.receive_frame() == b'{"status":"ok","token":"access\\/1"}'
        assert second.receive_frame() == b'{"status":"ok","certificate_id":"device-0001"}'


def test_ready_service_idles(world, cloud):
    """No request, no log line and next to no processor time while nobody asks for anything."""
    service = world.start_ready(cloud)
    since, used = service.log.mark(), processor_ticks(service)
    first = len(cloud.requests())
    time.sleep(1.5)
    assert service.log.pairs(since) == [] and len(cloud.requests()) == first
    assert processor_ticks(service) - used < 20


def processor_ticks(service):
    with open(f"/proc/{service.process.pid}/stat") as file:
        return sum(map(int, file.read().rpartition(")")[2].split()[11:13]))
