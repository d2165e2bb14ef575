"""The local key service: its exchange byte by byte, and everything that it can do wrong."""

import socket
import threading

import pytest

from support.configuration import orvex_provider
from support.fake_key_service import CERTIFICATE, PRIVATE_KEY, Answer, framed, in_pieces
from support.framing import LARGEST_PAYLOAD, frame
from support.http_server import reset_on_close
from support.key_service_lines import exchanged, opened, sent
from support.log import LEVELS, error, info
from support.service import without_leak_check
from support.texts import (CONFIGURING, DECRYPTED, DISCOVERY, FOUND_DATA, MANAGER, ORVEX, READING_ID, READY, asking,
                           cloud_failed, configured, decoded, decrypting, device_known, discovery_status,
                           key_service_announced, key_service_received, retrying, well_known_found, without_cache)
from support.waiting import wait_until

NO_ID = "Cannot retrieve certificate id. Not found"
NO_KEY = "Decrypting Discovery Request Failed - No private key provided"
CLOSED = "Orvex connection closed before all data read"
REFUSED = "Orvex Key Certificate socket couldn't be open"
SURPLUS = b"surplus " * 200


@pytest.fixture
def key_service(world):
    return world.new_key_service()


def starting_with(world, cloud, key_service, level="verbose"):
    return world.start(world.document(cloud.discovery_url, orvex_provider(key_service.port), level=level))


def up_to_key(world, cloud, service):
    """From the start to the point where the private key is wanted."""
    return [*configured(service), CONFIGURING, *exchanged(CERTIFICATE, len(world.device.certificate_pem)), READING_ID,
            device_known(), asking(cloud.discovery_url), *discovery_status(200), FOUND_DATA, decoded(256)]


@pytest.mark.parametrize("level", LEVELS)
def test_both_exchanges_are_logged_in_order(world, cloud, key_service, level):
    service = starting_with(world, cloud, key_service, level).wait_ready()
    service.expect_main_log([
        *up_to_key(world, cloud, service), *exchanged(PRIVATE_KEY, len(world.device.key_pem)), *decrypting(256),
        DECRYPTED, well_known_found(cloud.well_known_url), READY])


def test_each_fetch_is_one_connection_with_the_bare_word(world, cloud, key_service):
    starting_with(world, cloud, key_service).wait_ready()
    assert key_service.wait_exchanges(2) == [b"certificate", b"privatekey"]


def test_key_and_certificate_are_asked_for_once(world, cloud, key_service):
    service = starting_with(world, cloud, key_service).wait_ready()
    key_service.close()
    since = service.log.mark()
    assert service.api.token_text() == "access/1"
    service.api.request("reset")
    service.wait_ready(since)
    assert service.api.token_text() == "access/2"
    assert not service.log.pairs(since, only=ORVEX)


def test_the_port_is_used_as_a_16_bit_number(world, cloud, key_service):
    provider = orvex_provider(key_service.port + 65536)
    world.start(world.document(cloud.discovery_url, provider)).wait_ready()
    assert len(key_service.wait_exchanges(2)) == 2


@pytest.mark.parametrize("payload_size, pause", [(1, 0.0002), (3, 0.001), (255, 0.002), (256, 0.002), (1000, 0.01)])
def test_reply_in_pieces_is_put_together(world, cloud, key_service, payload_size, pause):
    key_service.script(CERTIFICATE, in_pieces(world.device.certificate_pem, payload_size, pause))
    key_service.script(PRIVATE_KEY, in_pieces(world.device.key_pem, payload_size, pause))
    service = starting_with(world, cloud, key_service).wait_ready()
    assert service.api.token_text() == "access/1"
    assert (ORVEX, f"Total bytes read {len(world.device.key_pem)}") in service.log.pairs()


@pytest.mark.parametrize("change", [
    lambda pem: framed(b"No Error here\n" + pem),
    lambda pem: framed(b" Error\n" + pem),
    lambda pem: framed(b"error\n" + pem),
    lambda pem: framed(pem + b"\0Error and anything else"),
    lambda pem: framed(pem, ending="close"),
    lambda pem: Answer((frame(pem) + SURPLUS,)),
    lambda pem: Answer((frame(pem)[:4], pem[:100], pem[100:] + SURPLUS), pause=0.02),
    lambda pem: framed(b"#" * 63 + (b"\n" + b"#" * 63) * (LARGEST_PAYLOAD // 64 - 100) + b"\n" + pem),
], ids=["Error inside", "blank before Error", "lower case", "NUL behind", "closed behind", "surplus", "late surplus",
        "long text before"])
@pytest.mark.parametrize("word", [CERTIFICATE, PRIVATE_KEY], ids=["certificate", "privatekey"])
def test_unusual_reply_is_accepted(world, cloud, key_service, word, change):
    pem = world.device.key_pem if word == PRIVATE_KEY else world.device.certificate_pem
    key_service.script(word, change(pem))
    service = starting_with(world, cloud, key_service).wait_ready()
    assert service.api.token_text() == "access/1"


def faults():
    """(name, answer, lines after the request was sent, the exception's text or None for an empty result)"""
    def received(text):
        return f"Couldn't load key/certificate. Received: {text}"

    early = error(ORVEX, "SSO API connection closed while reading request")
    unread = error(ORVEX, "SSO API request read failed, read 4 bytes - message length")

    def failed_after(count):
        return f"Orvex read reply failed: read {count} bytes"

    def whole(count):
        return [key_service_announced(count), key_service_received(count)]

    return [
        ("Error alone", framed(b"Error"), whole(5), received("Error")),
        ("Error with more", framed(b"Error: 100%s broken"), whole(19), received("Error: 100%s broken")),
        ("Error without a blank", framed(b"Errors"), whole(6), received("Errors")),
        ("Error before NUL", framed(b"Error\0more"), whole(10), received("Error")),
        ("Error and surplus", Answer((frame(b"Error") + SURPLUS[:100],)), whole(5), received("Error")),
        ("closed at once", Answer(ending="close"), [early], None),
        ("closed after 1 byte", Answer((b"\0",), "close"), [early], None),
        ("closed after 3 bytes", Answer((b"\0\0\1",), "close"), [early], None),
        ("reset at once", Answer(ending="reset"), [unread], None),
        ("reset after 3 bytes", Answer((b"\0\0\1",), "reset"), [unread], None),
        ("length 0", framed(b""), whole(0), None),
        ("NUL first", framed(b"\0text"), whole(5), None),
        ("closed before the payload", framed(b"", 100, "close"), [key_service_announced(100), info(ORVEX, CLOSED)], CLOSED),
        ("closed inside the payload", framed(b"x" * 99, 100, "close"), [key_service_announced(100), info(ORVEX, CLOSED)], CLOSED),
        ("closed inside a long payload", framed(b"x" * 9000, 9001, "close"), [key_service_announced(9001), info(ORVEX, CLOSED)], CLOSED),
        ("Error cut off", framed(b"Error", 6, "close"), [key_service_announced(6), info(ORVEX, CLOSED)], CLOSED),
        ("reset before the payload", framed(b"", 100, "reset"),
         [key_service_announced(100), error(ORVEX, failed_after(0))], failed_after(0)),
        ("reset inside the payload", framed(b"x" * 3, 100, "reset"),
         [key_service_announced(100), error(ORVEX, failed_after(3))], failed_after(3)),
    ]


FAULTS = pytest.mark.parametrize("answer, lines, reason", [pytest.param(*row[1:], id=row[0]) for row in faults()])


@pytest.mark.parametrize("level", LEVELS)
@FAULTS
def test_fault_with_the_certificate_fails_the_initialisation(world, cloud, key_service, answer, lines, reason, level):
    key_service.script(CERTIFICATE, answer)
    service = starting_with(world, cloud, key_service, level)
    assert service.wait_failed() == (NO_ID if reason is None else reason)
    if reason is not None:
        service.expect_main_log([*configured(service), CONFIGURING, *sent(CERTIFICATE), *lines, retrying(reason)])
    assert not cloud.requests()


@pytest.mark.parametrize("level", LEVELS)
@FAULTS
def test_fault_with_the_key_fails_the_decryption(world, cloud, key_service, answer, lines, reason, level):
    key_service.script(PRIVATE_KEY, answer)
    service = starting_with(world, cloud, key_service, level)
    cause = NO_KEY if reason is None else reason
    assert service.wait_failed() == without_cache(cause)
    service.expect_main_log([
        *up_to_key(world, cloud, service), *sent(PRIVATE_KEY), *lines,
        *([error(DISCOVERY, NO_KEY)] if reason is None else []), cloud_failed(cause), retrying(without_cache(cause))])


@pytest.mark.parametrize("answer, lines, reason", [pytest.param(*row[1:], id=row[0]) for row in faults()[:8]])
def test_after_a_fault_the_next_attempt_asks_again(world, cloud, key_service, answer, lines, reason):
    key_service.script(CERTIFICATE, answer, framed(world.device.certificate_pem))
    service = starting_with(world, cloud, key_service)
    service.wait_failed()
    service.stop()  # runs one more attempt
    assert service.log.pairs()[-2:] == [(MANAGER, READY.text), (MANAGER, "SSO Discovery Service terminated")]
    assert key_service.wait_exchanges(3) == [b"certificate", b"certificate", b"privatekey"]


@pytest.mark.parametrize("level", LEVELS)
def test_no_key_service_on_the_port(world, cloud, level):
    service = world.start(world.document(cloud.discovery_url, orvex_provider(world.new_port()), level=level))
    assert service.wait_failed() == REFUSED
    service.expect_main_log([*configured(service), CONFIGURING, *opened(CERTIFICATE), error(ORVEX, REFUSED),
                             retrying(REFUSED)])


@pytest.mark.parametrize("announced", [LARGEST_PAYLOAD + 1, 0x7fffffff, 0x80000000, 0xfffffffe, 0xffffffff], ids=hex)
@pytest.mark.parametrize("word", [CERTIFICATE, PRIVATE_KEY], ids=["certificate", "privatekey"])
def test_absurd_length_fails_without_taking_memory(world, cloud, key_service, word, announced):
    """Which of its texts it gives is the service's choice; that it fails, goes on and stays small is not."""
    key_service.script(word, framed(b"x" * 400, announced, "close"))
    service = starting_with(world, cloud, key_service)
    service.wait_failed()
    service.wait_listening()
    assert service.api.request("certificate_id")["status"] == "error"
    assert service.peak_memory_kilobytes() < 256 * 1024
    service.stop()


def test_connection_that_is_reset_while_asking_fails_in_one_of_its_ways(world, cloud, key_service):
    """The reset may meet the service while it connects, writes or reads."""
    listener = socket.create_server(("127.0.0.1", 0))

    def serve():
        try:
            while True:
                connection, _ = listener.accept()
                reset_on_close(connection)
                connection.close()
        except OSError:
            pass

    threading.Thread(target=serve, daemon=True).start()
    service = world.start(world.document(cloud.discovery_url, orvex_provider(listener.getsockname()[1])))
    assert service.wait_failed() in (REFUSED, "Orvex Key Certificate sending the request failed", NO_ID)
    service.stop()
    listener.close()


def test_requests_are_refused_without_waiting_while_the_key_service_stalls(world, cloud, key_service):
    key_service.script(CERTIFICATE, Answer(ending="hold"))
    service = starting_with(world, cloud, key_service)
    service.log.wait_for(ORVEX, "Orvex Key Certificate request sent 11 bytes")
    service.wait_listening()
    assert service.api.request("certificate_id") == {
        "status": "error", "message": "Cloud discovery failed. System is not initialized"}
    assert service.api.token() == {"status": "error", "message": "Cloud discovery failed. "}


def test_no_descriptor_left_for_the_socket(world, cloud, key_service):
    """The first attempt fails; the second, which the stop signal runs, finds every descriptor in use."""
    key_service.script(CERTIFICATE, framed(b"Error"))
    service = world.start(world.document(cloud.discovery_url, orvex_provider(key_service.port), ports=[]),
                          environment=without_leak_check())
    service.wait_failed()
    since = service.log.mark()
    with service.descriptors_limited_to(service.lowest_free_descriptor()):
        service.stop()
    failed = "Orvex Key Certificate socket creation failed"
    service.expect_log([info(MANAGER, "Received STOP signal"), CONFIGURING, *opened(CERTIFICATE)[:2],
                        error(ORVEX, failed), info(MANAGER, "SSO Discovery Service terminated")], since)


@pytest.mark.parametrize("answer", [framed(b"Error"), Answer(ending="close"), Answer(ending="reset"),
                                    framed(b"", 100, "close"), framed(b"x", 100, "reset")],
                         ids=["error", "closed", "reset", "cut off", "reset inside"])
def test_no_descriptor_stays_open_after_a_fault(world, cloud, key_service, answer):
    """Compared with a service that fails before it has asked for anything."""
    refused = world.start(world.document(cloud.discovery_url, orvex_provider(world.new_port())))
    key_service.script(PRIVATE_KEY, answer)
    faulty = starting_with(world, cloud, key_service)
    for service in (refused, faulty):
        service.wait_failed()
        service.wait_listening()
    wait_until(lambda: len(faulty.open_descriptors()) == len(refused.open_descriptors()),
               lambda: f"{faulty.open_descriptors()} against {refused.open_descriptors()}")
