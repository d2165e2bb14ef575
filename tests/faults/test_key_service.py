"""The key service: everything that it can do wrong, with the certificate and with the key."""

import re
import signal
import tempfile
import time
from pathlib import Path

import pytest
from cells import RETRYING, STARTING, WRITTEN, Cell, files_in, matrix
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import NameOID

from support.configuration import orvex_provider
from support.connections import DeafListener
from support.device import certificate_pem, ec_private_pem, new_rsa_key, private_pem
from support.exchanges import token_request
from support.fake_key_service import CERTIFICATE, PRIVATE_KEY, Answer, framed, in_pieces
from support.framing import LARGEST_PAYLOAD, frame
from support.log import error, expect_waited, info
from support.texts import (API, API_LISTENING, BOTH_FAILED, CUT_OFF, DISCOVERY, MANAGER, NO_ID, NO_KEY, ORVEX, READY,
                           UNREACHABLE, cloud_failed, key_service_announced, key_service_asked, key_service_received,
                           retrying)
from support.waiting import MARGIN_SECONDS

CLOSED = error(ORVEX, "SSO API connection closed while reading request")
LENGTH_UNREAD = error(ORVEX, "SSO API request read failed, read 4 bytes - message length")
ANNOUNCED = key_service_announced("{size}")
RECEIVED = key_service_received("{size}")
NOT_RELOADED = re.compile("Couldn't read the key and the certificate again: .*[.] The old ones stay in use")
GARBAGE = bytes(range(1, 256)) * 4
HTTP = b"HTTP/1.1 400 Bad Request\r\n\r\n"
TOKEN = '{"status":"ok","token":"access\\/1"}'


def both(title, answers, columns):
    """A cell for the certificate and one for the key. `answers` gives, for a good text, what the key service answers:
    an attempt for each answer. `columns` depend on the word that asks."""
    return [one(word, title, answers, columns(word)) for word in (CERTIFICATE, PRIVATE_KEY)]


def one(word, title, answers, columns):
    kind = "certificate" if word == CERTIFICATE else "key"
    return Cell(f"{kind}: {title}", script=(word, answers), **columns)


def works(_):
    return {"log": (READY,), "reply": TOKEN, "files": WRITTEN}


def refused(reason):
    return '{"status":"error","message":"Cloud discovery failed. %s"}' % reason.replace("/", "\\/")


def fails(reason, *lines):
    """Without the certificate there is nothing to ask the cloud for, and without the key its reply says nothing."""
    def columns(word):
        if word == CERTIFICATE:
            return {"log": (*lines, retrying(reason)), "reply": refused(reason), "state": RETRYING}
        return {"log": (*lines, cloud_failed(reason, caching=True), retrying(BOTH_FAILED)),
                "reply": refused(BOTH_FAILED), "state": RETRYING}
    return columns


def gives_nothing(*lines):
    """The text that came is empty, or none came."""
    def columns(word):
        return fails(NO_ID, *lines)(word) if word == CERTIFICATE else fails(
            NO_KEY, *lines, error(DISCOVERY, NO_KEY))(word)
    return columns


def cannot_be_read(*lines):
    def columns(word):
        return fails(NO_ID, *lines)(word) if word == CERTIFICATE else spoilt_key("PEM_read_bio_PrivateKey() FAILED")
    return columns


def spoilt_key(step, cause="PEM_read_bio_PrivateKey() FAILED"):
    return fails(f"Decrypting Discovery data: {cause}", RECEIVED, error(DISCOVERY, step))(PRIVATE_KEY)


def unread(count):
    text = f"Orvex read reply failed: read {count} bytes"
    return fails(text, ANNOUNCED, error(ORVEX, text))


def reported(text):
    return fails(f"Couldn't load key/certificate. Received: {text}", RECEIVED)


@pytest.fixture
def key_service(world):
    return world.new_key_service()


@pytest.fixture(scope="module")
def usual_peak(module_world):
    """The most memory that a service takes whose key service does all as it should."""
    service = start(module_world, module_world.new_cloud(), module_world.new_key_service()).wait_ready()
    return service.peak_memory_kilobytes()


def start(world, cloud, key_service):
    folder = tempfile.mkdtemp(dir=world.folder)
    service = world.start(world.document(cloud.discovery_url, orvex_provider(key_service.port), cache_folder=folder))
    service.log.wait_for(API, API_LISTENING[-1].text)
    return service


def good_text(device, word):
    return device.certificate_pem if word == CERTIFICATE else device.key_pem


def size_announced(answer):
    """As the log shows it."""
    return int.from_bytes(b"".join(answer.pieces)[:4], "big", signed=True)


def judge_state(judge, service, since=0, **values):
    judge.log(service, since, **values)
    judge.reply(service.api.exchange(token_request()))
    judge.state(service)
    judge.files({}, files_in(Path(service.section["cloud_config"]["cache_folder"])))
    assert len(service.open_sockets()) == 1, "more than the socket that listens"


def expect_recovery(service):
    """The key service is well again."""
    since = service.log.mark()
    service.send_signal(signal.SIGHUP)
    service.wait_ready(since)
    assert service.api.token_text() == "access/1"


# --- answers that give no text: the next attempt asks again

@matrix(
    "The key service gives no text, so the next attempt asks again",
    *both("closes after each byte of the length",
          lambda text: [Answer((frame(text)[:place],), "close") for place in range(4)], gives_nothing(CLOSED)),
    *both("closes after each byte of the text",
          lambda text: [framed(text[:place], len(text), "close") for place in range(len(text))],
          fails(CUT_OFF, ANNOUNCED, info(ORVEX, CUT_OFF))),
    *both("announces a byte too many and closes", lambda text: [framed(text, len(text) + 1, "close")],
          fails(CUT_OFF, ANNOUNCED, info(ORVEX, CUT_OFF))),
    *both("resets after each byte of the length",
          lambda text: [Answer((frame(text)[:place],), "reset") for place in range(4)], gives_nothing(LENGTH_UNREAD)),
    *both("resets before the text", lambda text: [framed(b"", len(text), "reset")], unread(0)),
    *both("resets inside the text", lambda text: [framed(text[:100], len(text), "reset")], unread(100)),
    *both("announces 1 MiB and a byte", lambda _: [framed(b"", LARGEST_PAYLOAD + 1)], unread(0)),
    *both("announces 2 GiB less a byte", lambda _: [framed(b"", 0x7fffffff)], unread(0)),
    *both("announces 2 GiB", lambda _: [framed(b"", 0x80000000)], unread(0)),
    *both("announces 4 GiB less a byte", lambda _: [framed(b"", 0xffffffff)], unread(0)),
    *both("announces 4 GiB less a byte and sends a good text", lambda text: [framed(text[:200], 0xffffffff)],
          unread(200)),
    *both("speaks another protocol", lambda _: [Answer((HTTP,), "close")], unread(len(HTTP) - 4)),
    *both("announces an empty text", lambda _: [framed(b"")], gives_nothing(ANNOUNCED, RECEIVED)),
    *both("sends NUL first", lambda text: [framed(b"\0" + text)], gives_nothing(RECEIVED)),
    *both("sends Error", lambda _: [framed(b"Error")], reported("Error")),
    *both("sends Error with a reason", lambda _: [framed(b"Error: 100%s/%n broken")],
          reported("Error: 100%s/%n broken")),
    *both("sends Error before a good text", lambda text: [framed(b"Error\0" + text)], reported("Error")))
def test_next_attempt_asks_again(world, cloud, key_service, usual_peak, judge, cell):
    word, answers = cell.script
    text = good_text(world.device, word)
    first, *others = answers(text)
    key_service.script(word, first)
    service = start(world, cloud, key_service)
    judge_state(judge, service, size=size_announced(first))
    for answer in others or [first]:
        key_service.script(word, answer)
        judge_state(judge, service, failed_again(service), size=size_announced(answer))
    assert service.peak_memory_kilobytes() < usual_peak + 8 * 1024
    key_service.script(word, framed(text))
    expect_recovery(service)
    judge.status(service)


def failed_again(service):
    """A reload signal, which meets the fault once more, has the next attempt made at once: where that begins in the
    log."""
    since = service.log.mark()
    service.send_signal(signal.SIGHUP)
    failed = service.log.wait_for(MANAGER, NOT_RELOADED, since)
    return service.log.entries().index(failed, since) + 1


# --- texts that are of no use: they are kept as good ones are, until a reload signal

def cut_in_half(text):
    return [framed(text, len(text) // 2)]


def nul_inside(text):
    return [framed(text[:len(text) // 2] + b"\0" + text[len(text) // 2:])]


@matrix(
    "The key service gives a useless text, which is kept until SIGHUP",
    *both("announces half of the text", cut_in_half, cannot_be_read(RECEIVED)),
    *both("sends NUL inside the text", nul_inside, cannot_be_read(RECEIVED)),
    *both("sends garbage", lambda _: [framed(GARBAGE)], cannot_be_read(RECEIVED)),
    one(CERTIFICATE, "has no name", lambda _: [framed(certificate_pem(new_rsa_key()))], fails(NO_ID)(CERTIFICATE)),
    one(PRIVATE_KEY, "is encrypted", lambda text: [framed(private_pem(new_rsa_key(), b"pass"))],
        spoilt_key("PEM_read_bio_PrivateKey() FAILED")),
    one(PRIVATE_KEY, "is of another kind", lambda _: [framed(ec_private_pem())],
        spoilt_key("EVP_PKEY_get1_RSA() FAILED")),
    one(PRIVATE_KEY, "is another device's", lambda _: [framed(private_pem(new_rsa_key()))],
        spoilt_key("RSA_private_decrypt() FAILED", "RSA_private_decrypt() FAILED")))
def test_useless_text_is_kept(world, cloud, key_service, judge, cell):
    word, answers = cell.script
    text = good_text(world.device, word)
    answer, = answers(text)
    key_service.script(word, answer)
    service = start(world, cloud, key_service)
    judge_state(judge, service, size=size_announced(answer))
    key_service.refuse()  # so that the reload does not come by the text again
    since = failed_again(service)
    service.wait_failed(since)
    assert not service.log.pairs(since, only=ORVEX)
    key_service.listen()
    key_service.script(word, framed(text))
    expect_recovery(service)
    judge.status(service)


# --- answers that are unusual, and good

def ec_certificate(_):
    key = ec.generate_private_key(ec.SECP256R1())
    return [framed(certificate_pem(key, (NameOID.COMMON_NAME, "device-0001")))]


@matrix(
    "The key service is unusual",
    *both("sends a byte every 2 ms", lambda text: [in_pieces(text, 1, 0.002)], works),
    *both("is silent for 2 seconds first", lambda text: [Answer((b"", frame(text)), pause=2)], works),
    *both("sends more than it announced", lambda text: [Answer((frame(text) + b"surplus " * 200,))], works),
    *both("sends NUL behind the text", lambda text: [framed(text + b"\0Error")], works),
    *both("sends Error inside the text", lambda text: [framed(b"No Error\n" + text)], works),
    *both("closes behind the text", lambda text: [framed(text, ending="close")], works),
    one(CERTIFICATE, "has a key of another kind", ec_certificate, works(CERTIFICATE)))
def test_good_text_is_found(world, cloud, key_service, judge, cell):
    word, answers = cell.script
    answer, = answers(good_text(world.device, word))
    key_service.script(word, answer)
    service = start(world, cloud, key_service)
    judge_state(judge, service)
    judge.status(service)


# --- silence

def waits(step, *lines):
    """Without limit, until a stop signal comes."""
    def columns(word):
        failed = step(*lines)(word)
        return {"log": failed["log"][:-1], "reply": refused(""), "state": STARTING}
    return columns


@matrix(
    "The key service is silent",
    *both("is silent", lambda _: [Answer(ending="hold")], waits(gives_nothing, LENGTH_UNREAD)),
    *both("falls silent inside the length", lambda text: [Answer((frame(text)[:2],), "hold")],
          waits(gives_nothing, LENGTH_UNREAD)),
    *both("falls silent inside the text", lambda text: [framed(text[:100], len(text), "hold")],
          waits(lambda: unread(100))),
    *both("announces a byte too many and waits", lambda text: [framed(text, len(text) + 1, "hold")],
          waits(lambda: unread("{received}"))))
def test_silent_key_service_is_waited_for_until_the_stop(world, cloud, key_service, judge, cell):
    word, answers = cell.script
    text = good_text(world.device, word)
    answer, = answers(text)
    key_service.script(word, answer)
    service = start(world, cloud, key_service)
    service.log.wait_for(ORVEX, key_service_asked(word).text)
    judge_silence(judge, service, size=size_announced(answer), received=len(text))


def judge_silence(judge, service, **values):
    time.sleep(1.2)  # longer than it takes for the service to look whether it is to stop
    judge.reply(service.api.exchange(token_request()))
    judge.state(service)
    judge.files({}, files_in(Path(service.section["cloud_config"]["cache_folder"])))
    began = time.monotonic()
    judge.status(service)
    assert time.monotonic() - began < MARGIN_SECONDS
    judge.log(service, **values)


# --- no connection

def unreachable(word):
    return fails(UNREACHABLE, error(ORVEX, UNREACHABLE))(word)


def meets(world, cloud, key_service, word, fault):
    """A service that meets the fault when it wants what this word asks for, and the time at which it does."""
    if word == CERTIFICATE:
        fault()
        return start(world, cloud, key_service)
    gate = cloud.hold(cloud.discovery_path)
    service = start(world, cloud, key_service)
    gate.wait_arrived()
    fault()
    gate.release()
    return service


@matrix(
    "The key service cannot be reached",
    one(CERTIFICATE, "not there", None, unreachable(CERTIFICATE)),
    one(PRIVATE_KEY, "gone after the certificate", None, unreachable(PRIVATE_KEY)))
def test_key_service_that_is_not_there_is_asked_again(world, cloud, key_service, judge, cell):
    word, _ = cell.script
    service = meets(world, cloud, key_service, word, key_service.refuse)
    judge_state(judge, service)
    key_service.listen()
    expect_recovery(service)
    judge.status(service)


@matrix("The key service cannot be reached", *both("lets nobody into its full queue for 10 seconds", None, unreachable))
def test_connection_is_given_up_after_10_seconds(world, cloud, key_service, judge, cell):
    word, _ = cell.script
    with DeafFrom(key_service, full=True) as deaf:
        service = meets(world, cloud, key_service, word, deaf.begin)
        service.wait_failed()
        judge_state(judge, service)
    *_, asked = (entry for entry in service.log.entries() if entry.text.endswith("socket successfully created")
                 and entry.source == ORVEX)
    expect_waited(10, asked, service.log.wait_for(ORVEX, UNREACHABLE), margin=5)
    key_service.listen()
    expect_recovery(service)
    judge.status(service)


@matrix("The key service cannot be reached", *both("lets nobody in", None, waits(gives_nothing, LENGTH_UNREAD)))
def test_connection_that_nobody_takes_is_waited_for_until_the_stop(world, cloud, key_service, judge, cell):
    word, _ = cell.script
    with DeafFrom(key_service) as deaf:
        service = meets(world, cloud, key_service, word, deaf.begin)
        service.log.wait_for(ORVEX, key_service_asked(word).text)
        judge_silence(judge, service)


class DeafFrom:
    """Takes the key service's place when it begins."""

    def __init__(self, key_service, full=False):
        self._key_service = key_service
        self._full = full
        self._listener = None

    def begin(self):
        self._key_service.refuse()
        self._listener = DeafListener(self._key_service.port, self._full)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._listener.close()


# --- for real

def comes_back(word):
    failed = unreachable(word)
    return {**works(word), "log": (*failed["log"], READY)}


@pytest.mark.slow
@matrix(
    "The key service cannot be reached",
    one(CERTIFICATE, "not there, and back for the next attempt", None, comes_back(CERTIFICATE)),
    one(PRIVATE_KEY, "gone after the certificate, and back for the next attempt", None, comes_back(PRIVATE_KEY)))
def test_next_attempt_is_made_after_30_seconds(world, cloud, key_service, judge, cell):
    word, _ = cell.script
    service = meets(world, cloud, key_service, word, key_service.refuse)
    service.wait_failed()
    key_service.listen()
    service.log.wait_for(MANAGER, READY.text, seconds=45)
    judge_state(judge, service)
    judge.status(service)
