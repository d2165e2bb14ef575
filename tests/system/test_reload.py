"""SIGHUP: the key, the certificate and its id are read again, and the service starts over with them."""

import os
import random
import signal
import threading
import time

import pytest
from cryptography.hazmat.primitives.asymmetric import rsa
from cryptography.hazmat.primitives.serialization import load_pem_private_key
from cryptography.x509.oid import NameOID

from support.api_client import ApiClient
from support.configuration import file_provider, orvex_provider, template_provider
from support.device import Device, certificate_pem, ec_private_pem, new_rsa_key, private_pem
from support.exchanges import ID_REPLY, ID_REQUEST, answers, token_request
from support.fake_cloud import TOKEN_PATH
from support.fake_key_service import CERTIFICATE, PRIVATE_KEY, Answer, framed, in_pieces
from support.framing import frame
from support.http_server import Reply
from support.key_service_lines import exchanged, opened, sent
from support.log import LEVELS, error, expect_waited, info, shown
from support.service import without_quarantine
from support.texts import (API, API_LISTENING, DISCOVERY, KEYS, MANAGER, NO_ID, ORVEX, READING_AGAIN, READING_ID, READY,
                           RELOAD, STOPPED, TOKEN_FOUND, UNREACHABLE, expires, key_service_announced, pair_kept,
                           pair_read, reloaded, request_received, template_names, token_answer, token_sent)
from support.waiting import DEADLINE_SECONDS, wait_until

NEW_ID = "device-0002"
NEW_ID_REPLY = b'{"status":"ok","certificate_id":"device-0002"}'
MISMATCH = "The private key does not belong to the certificate"
NO_RSA_KEY = "The private key is no RSA key of 2048 bits that can be read"
NOT_READY = b'{"status":"error","message":"Cloud discovery failed. System is not initialized"}'
PROMPT = min(DEADLINE_SECONDS, 20)  # seconds, for all that does not wait for the half minute between two attempts


@pytest.fixture(scope="module")
def new_device(tmp_path_factory):
    """Another key and another name."""
    return Device(tmp_path_factory.mktemp("new"), subject=((NameOID.COMMON_NAME, NEW_ID),), device_id=NEW_ID)


@pytest.fixture
def own(device, tmp_path):
    """The device's files, to be replaced."""
    return Device(tmp_path / "own", device.key)


@pytest.fixture
def document(world, cloud, own):
    """Two ports: one that a test may block, and one to ask meanwhile."""
    return world.document(cloud.discovery_url, file_provider(own), ports=[world.new_port(), world.new_port()])


@pytest.fixture
def service(world, document):
    return world.start(document).wait_ready()


def put(files, device):
    files.key_path.write_bytes(device.key_pem)
    files.certificate_path.write_bytes(device.certificate_pem)


def reload(service):
    """Returns where the log was before."""
    since = service.log.mark()
    service.send_signal(signal.SIGHUP)
    return since


def wait_for(service, line, since):
    return service.log.wait_for(line.source, line.text, since, PROMPT)


def second_port(service):
    return ApiClient(service.section["api_providers"][1]["port"])


def expect_old_pair(service, cloud, token):
    """A token that was fetched before is still there, and the next one is signed as ever: the cloud judges that."""
    assert service.api.exchange(ID_REQUEST) == ID_REPLY
    assert service.api.token_text() == token
    assert service.api.token_text(f"after {len(cloud.assertions())}") == f"access/{len(cloud.assertions())}"


# --- a new pair

@pytest.mark.parametrize("level", LEVELS)
def test_new_pair_is_used_for_everything(world, cloud, own, new_device, level):
    cache = world.new_folder("cache")
    service = world.start(world.document(cloud.discovery_url, file_provider(own), level=level, cache_folder=cache))
    service.wait_ready()
    assert service.api.token_text() == "access/1"
    put(own, new_device)
    cloud.know(new_device)
    since = reload(service)
    wait_until(lambda: service.api.exchange(ID_REQUEST) == NEW_ID_REPLY, service.evidence, PROMPT)
    stored = info(DISCOVERY, f"Cloud config data was successfully stored in {cache}/{NEW_ID}.cfg")
    service.expect_log([*reloaded(cloud)[:-1], stored, READY], since, without=API)
    assert [request.target for request in cloud.requests()][-1] == "/devices/" + NEW_ID
    assert service.api.token_text() == "access/2"  # the cloud has judged who signed its assertion, and for whom
    assert (cache / f"{NEW_ID}.cfg").exists()


def test_same_pair_starts_over_as_well(service, cloud):
    assert service.api.token_text() == "access/1"
    since = reload(service)
    wait_for(service, READY, since)
    service.expect_log(reloaded(cloud), since, without=API)
    assert service.api.token_text() == "access/2"
    assert len(cloud.requests(cloud.discovery_path)) == 2


def test_new_pair_by_template(world, cloud, device, new_device):
    folder = world.new_folder("keys")
    files = Device(folder, device.key)
    os.rename(files.key_path, folder / "staging.key")
    os.rename(files.certificate_path, folder / "staging.crt")
    files.key_path, files.certificate_path = folder / "staging.key", folder / "staging.crt"
    provider = template_provider(folder / "%s.key", folder / "%s.crt")
    service = world.start(world.document(cloud.discovery_url, provider), environment={"CLOUD_ENV": "staging"})
    service.wait_ready()
    put(files, new_device)
    cloud.know(new_device)
    since = reload(service)
    wait_for(service, READY, since)
    service.expect_log(reloaded(cloud, template_names(files.key_path, files.certificate_path)), since, without=API)
    assert service.api.exchange(ID_REQUEST) == NEW_ID_REPLY
    assert service.api.token_text() == "access/1"


def test_new_pair_from_the_key_service(world, cloud, new_device):
    key_service = world.new_key_service()
    service = world.start(world.document(cloud.discovery_url, orvex_provider(key_service.port))).wait_ready()
    key_service.script(PRIVATE_KEY, framed(new_device.key_pem))
    key_service.script(CERTIFICATE, framed(new_device.certificate_pem))
    cloud.know(new_device)
    since = reload(service)
    wait_for(service, READY, since)
    service.expect_log(reloaded(cloud, *exchanged(PRIVATE_KEY, len(new_device.key_pem)),
                                *exchanged(CERTIFICATE, len(new_device.certificate_pem))), since, without=API)
    assert service.api.exchange(ID_REQUEST) == NEW_ID_REPLY
    assert service.api.token_text() == "access/1"
    assert key_service.wait_exchanges(4) == [b"certificate", b"privatekey", b"privatekey", b"certificate"]


def test_configuration_is_not_read_again(service, cloud):
    service.configuration_path.write_text("{")
    since = reload(service)
    wait_for(service, READY, since)
    service.expect_log(reloaded(cloud), since, without=API)


def test_signal_that_the_parent_ignores_is_taken(world, cloud, document):
    service = world.start(document, wrapper=["sh", "-c", 'trap "" HUP; exec "$@"', "sh"]).wait_ready()
    wait_for(service, READY, reload(service))


# --- at another time

def test_wait_for_the_next_attempt_ends_at_once(world, cloud, document):
    cloud.script(cloud.discovery_path, Reply(503), None)
    service = world.start(document)
    service.wait_failed()
    since = reload(service)
    wait_for(service, READY, since)
    service.expect_log(reloaded(cloud), since, without=API)


def test_files_that_come_later_are_found_at_once(world, cloud, document, own, device):
    own.certificate_path.unlink()
    service = world.start(document)
    assert service.wait_failed() == f"Couldn't open key/certificate file {own.certificate_path}"
    put(own, device)
    since = reload(service)
    wait_for(service, READY, since)
    service.expect_log(reloaded(cloud), since, without=API)


def test_failure_while_the_cloud_is_away_is_followed_by_an_attempt_with_the_old_pair(world, cloud, document, own):
    cloud.script(cloud.discovery_path, Reply(503), None)
    service = world.start(document)
    service.wait_failed()
    own.key_path.unlink()
    since = reload(service)
    service.log.wait_for(MANAGER, pair_kept(f"Couldn't open key/certificate file {own.key_path}").text, since)
    wait_until(lambda: len(cloud.requests()) == 2, "a second attempt", PROMPT)


@pytest.mark.parametrize("reply", [None, Reply(503)], ids=["that succeeds", "that fails"])
def test_during_an_attempt(service, cloud, own, new_device, reply):
    """It comes next, and then the cloud is asked at once, whatever became of the attempt."""
    gate = cloud.hold(cloud.discovery_path, reply)
    service.api.request("reset")
    gate.wait_arrived()
    put(own, new_device)
    since = reload(service)
    assert second_port(service).exchange(ID_REQUEST) == NOT_READY
    cloud.know(new_device)
    gate.release()
    wait_until(lambda: second_port(service).exchange(ID_REQUEST) == NEW_ID_REPLY, service.evidence, PROMPT)
    lines = service.log.pairs(since, without=API)
    assert lines[lines.index(RELOAD[1:]):] == shown(reloaded(cloud), "verbose")


def test_several_in_a_row(service, cloud):
    for number in range(10):
        since = reload(service)
        wait_for(service, READY, since)
        service.expect_log(reloaded(cloud), since, without=API)
    assert len(cloud.requests(cloud.discovery_path)) == 11


def test_many_at_once_are_one_or_a_few(service, cloud, own, new_device):
    put(own, new_device)
    cloud.know(new_device)
    since = service.log.mark()
    for _ in range(100):
        service.send_signal(signal.SIGHUP)
    wait_until(lambda: service.api.exchange(ID_REQUEST) == NEW_ID_REPLY, service.evidence, PROMPT)
    assert 1 <= service.log.count(MANAGER, READING_AGAIN.text, since) <= 100


def test_together_with_a_reset(service, cloud):
    for _ in range(20):
        reload(service)
        assert service.api.request("reset") == {"status": "ok"}
    wait_until(lambda: answers(service), service.evidence, PROMPT)
    assert service.api.token_text()


# --- with clients

def test_request_that_is_under_way_gets_its_answer(service, cloud, own, new_device):
    gate = cloud.hold(TOKEN_PATH)
    first = service.log.mark()
    with service.api.connect() as client:
        client.send(frame(token_request().encode()))
        gate.wait_arrived()
        put(own, new_device)
        cloud.know(new_device)
        since = reload(service)
        wait_for(service, pair_read(NEW_ID), since)
        assert client.has_nothing_for(0.3)
        service.expect_log([RELOAD, READING_AGAIN, READING_ID, pair_read(NEW_ID)], since, without=API)
        gate.release()
        assert client.receive_frame() == b'{"status":"ok","token":"access\\/1"}'
        assert not client.receive_end()
    wait_for(service, READY, since)
    answer = '{"access_token": "access/1", "token_type": "Bearer", "expires_in": 3600}'
    replied = '{"status":"ok","token":"access\\/1"}'
    service.expect_log([*request_received(token_request()), token_sent(replied)], first, only=API)
    service.expect_log([RELOAD, READING_AGAIN, READING_ID, pair_read(NEW_ID), *token_answer(200, answer), TOKEN_FOUND,
                        expires(3600), *reloaded(cloud)[4:]], since, without=API)
    assert service.api.token_text() == "access/2"


def test_requests_behind_it_are_told_that_the_service_starts_over(service, cloud):
    gate = cloud.hold(TOKEN_PATH)
    with service.api.connect() as first, second_port(service).connect() as second:
        first.send(frame(token_request().encode()))
        gate.wait_arrived()
        second.send(frame(ID_REQUEST))
        assert second.has_nothing_for(0.2)
        discovery = cloud.hold(cloud.discovery_path)
        cloud.script(TOKEN_PATH, None)
        since = reload(service)
        wait_for(service, pair_read("device-0001"), since)
        gate.release()
        assert first.receive_frame() == b'{"status":"ok","token":"access\\/1"}'
        assert second.receive_frame() == NOT_READY
        discovery.wait_arrived()
        discovery.release()
    wait_for(service, READY, since)
    assert service.api.token_text() == "access/2"


def test_connected_client_keeps_its_connection(service, cloud, own, new_device):
    with service.api.connect() as silent, service.api.connect() as waiting:
        silent.send(frame(ID_REQUEST)[:7])
        waiting.send(frame(ID_REQUEST))
        put(own, new_device)
        cloud.know(new_device)
        since = reload(service)
        wait_for(service, READY, since)
        assert silent.has_nothing_for(0.2)
        silent.send(frame(ID_REQUEST)[7:])
        assert silent.receive_frame() == NEW_ID_REPLY
        assert waiting.receive_frame() == NEW_ID_REPLY


def test_port_stays_the_same_listener(service):
    """No connection is refused at any moment, and none is made anew."""
    before = sorted(listeners(service))
    assert len(before) == 2
    ended, refused = threading.Event(), []

    def knock():
        while not ended.is_set():
            try:
                second_port(service).exchange(ID_REQUEST)
            except (OSError, EOFError) as failure:
                refused.append(failure)

    client = threading.Thread(target=knock)
    client.start()
    try:
        for _ in range(20):
            wait_for(service, READY, reload(service))
    finally:
        ended.set()
        client.join()
    assert not refused
    assert sorted(listeners(service)) == before
    assert service.log.count(API, API_LISTENING[-1].text) == 2


def listeners(service):
    """The descriptors and inodes of the sockets that listen."""
    with open(f"/proc/{service.process.pid}/net/tcp") as table:
        listening = {line.split()[9] for line in table if line.split()[3] == "0A"}
    for number in service.open_descriptors():
        name = os.readlink(f"/proc/{service.process.pid}/fd/{number}")
        if name.removeprefix("socket:[").removesuffix("]") in listening:
            yield number, name


# --- failures

def remove(path):
    path.unlink()


def write(content):
    return lambda path: path.write_bytes(content)


def cannot_open(path):
    return f"Couldn't open key/certificate file {path}"


FAILURES = [
    ("key missing", "key_path", remove, cannot_open, []),
    ("key empty", "key_path", write(b""), " is empty", []),
    ("key garbage", "key_path", write(b"garbage\0%s%n"), NO_RSA_KEY, []),
    ("key cut off", "key_path", lambda path: os.truncate(path, 1000), NO_RSA_KEY, []),
    ("key for another algorithm", "key_path", lambda path: path.write_bytes(ec_private_pem()), NO_RSA_KEY, []),
    ("key too short", "key_path", lambda path: path.write_bytes(short_key()), NO_RSA_KEY, []),
    ("key of another certificate", "key_path", lambda path: path.write_bytes(private_pem(new_rsa_key())), MISMATCH,
     [READING_ID]),
    ("key encrypted", "key_path", lambda path: path.write_bytes(encrypted_key()), NO_RSA_KEY, []),
    ("certificate missing", "certificate_path", remove, cannot_open, []),
    ("certificate empty", "certificate_path", write(b""), " is empty", []),
    ("certificate garbage", "certificate_path", write(b"garbage"), NO_ID, [READING_ID]),
    ("certificate cut off", "certificate_path", lambda path: os.truncate(path, 500), NO_ID, [READING_ID]),
    ("certificate without an id", "certificate_path", lambda path: path.write_bytes(nameless_certificate(path)), NO_ID,
     [READING_ID]),
]


def short_key():
    return private_pem(rsa.generate_private_key(public_exponent=65537, key_size=1024))


def encrypted_key():
    return private_pem(new_rsa_key(), b"pass phrase")


def nameless_certificate(path):
    return certificate_pem(load_pem_private_key(path.with_name("device.key").read_bytes(), None))


@pytest.mark.parametrize("member, spoil, reason, lines", [pytest.param(*row[1:], id=row[0]) for row in FAILURES])
def test_failure_keeps_the_old_pair(service, cloud, own, device, member, spoil, reason, lines):
    assert service.api.token_text() == "access/1"
    path = getattr(own, member)
    spoil(path)
    reason = reason if isinstance(reason, str) else reason(path)
    since = reload(service)
    wait_for(service, pair_kept(reason), since)
    expect_old_pair(service, cloud, "access/1")
    assert [pair for pair in service.log.pairs(since) if pair[0] in (MANAGER, KEYS)] == shown(
        [RELOAD, READING_AGAIN, *lines, pair_kept(reason)], "verbose")
    put(own, device)
    since = reload(service)
    wait_for(service, READY, since)
    service.expect_log(reloaded(cloud), since, without=API)
    assert len(cloud.requests(cloud.discovery_path)) == 2


@pytest.mark.parametrize("level", LEVELS)
def test_failure_is_one_error_line_at_every_level(world, cloud, own, level):
    service = world.start(world.document(cloud.discovery_url, file_provider(own), level=level)).wait_ready()
    own.key_path.unlink()
    since = reload(service)
    wait_for(service, pair_kept(cannot_open(own.key_path)), since)
    service.expect_log([RELOAD, READING_AGAIN, pair_kept(cannot_open(own.key_path))], since, without=API)


def key_service_failures():
    """(name, word, answer, lines, reason)"""
    closed = error(ORVEX, "SSO API connection closed while reading request")
    cut_off = "Orvex connection closed before all data read"
    told = "Couldn't load key/certificate. Received: Error: no"
    return [
        ("key refused", PRIVATE_KEY, framed(b"Error: no"), exchanged(PRIVATE_KEY, 9), told),
        ("no key", PRIVATE_KEY, Answer((), "close"), [*sent(PRIVATE_KEY), closed], NO_RSA_KEY),
        ("half a key", PRIVATE_KEY, framed(b"half", 100, "close"),
         [*sent(PRIVATE_KEY), key_service_announced(100), info(ORVEX, cut_off)], cut_off),
    ]


@pytest.fixture
def key_service(world):
    return world.new_key_service()


@pytest.fixture
def served(world, cloud, key_service):
    """A service that has its pair from the key service, and a token."""
    result = world.start(world.document(cloud.discovery_url, orvex_provider(key_service.port))).wait_ready()
    assert result.api.token_text() == "access/1"
    return result


@pytest.mark.parametrize("word, answer, lines, reason",
                         [pytest.param(*row[1:], id=row[0]) for row in key_service_failures()])
def test_failure_of_the_key_service_keeps_the_old_pair(served, cloud, key_service, word, answer, lines, reason):
    key_service.script(word, answer, framed(cloud.device.key_pem))
    since = reload(served)
    wait_for(served, pair_kept(reason), since)
    served.expect_log([RELOAD, READING_AGAIN, *lines, pair_kept(reason)], since, without=API)
    expect_old_pair(served, cloud, "access/1")
    wait_for(served, READY, reload(served))


def test_certificate_that_the_key_service_refuses(served, cloud, key_service):
    key_service.script(CERTIFICATE, framed(b"Error"))
    since = reload(served)
    kept = pair_kept("Couldn't load key/certificate. Received: Error")
    wait_for(served, kept, since)
    served.expect_log([RELOAD, READING_AGAIN, *exchanged(PRIVATE_KEY, len(cloud.device.key_pem)),
                       *exchanged(CERTIFICATE, 5), kept], since, without=API)
    expect_old_pair(served, cloud, "access/1")


def test_key_service_that_is_gone(served, cloud, key_service):
    key_service.refuse()
    since = reload(served)
    wait_for(served, pair_kept(UNREACHABLE), since)
    served.expect_log([RELOAD, READING_AGAIN, *opened(PRIVATE_KEY), error(ORVEX, UNREACHABLE), pair_kept(UNREACHABLE)],
                      since, without=API)
    expect_old_pair(served, cloud, "access/1")


@pytest.mark.slow
@pytest.mark.parametrize("answer, progress", [(Answer(ending="hold"), []), (framed(b"half", 100, "hold"), [100]),
                                              (in_pieces(b"x" * 100, 1, 1), [100])],
                         ids=["silent", "silent in the key", "a byte a second"])
def test_key_service_has_30_seconds_for_a_reply(served, cloud, key_service, answer, progress):
    """Clients are served meanwhile."""
    key_service.script(PRIVATE_KEY, answer, framed(cloud.device.key_pem))
    late = "Orvex Key Certificate no reply in 30 seconds"
    since = reload(served)
    began = wait_for(served, READING_AGAIN, since)
    expect_old_pair(served, cloud, "access/1")
    ended = served.log.wait_for(MANAGER, pair_kept(late).text, since, 45)
    expect_waited(30, began, ended)
    lines = [line for line in served.log.pairs(since) if line[0] in (MANAGER, ORVEX)]
    assert lines == shown([RELOAD, READING_AGAIN, *sent(PRIVATE_KEY), *map(key_service_announced, progress),
                           error(ORVEX, late), pair_kept(late)], "verbose")
    expect_old_pair(served, cloud, "access/1")
    wait_for(served, READY, reload(served))


# --- the end

def test_stop_while_the_key_service_is_waited_for(served, key_service):
    key_service.script(PRIVATE_KEY, Answer(ending="hold"))
    since = reload(served)
    wait_for(served, sent(PRIVATE_KEY)[-1], since)
    served.stop(seconds=PROMPT)
    assert served.log.pairs()[-1] == (MANAGER, "SSO Discovery Service terminated")


def test_stop_while_a_request_is_waited_for(service, cloud):
    gate = cloud.hold(TOKEN_PATH)
    with service.api.connect() as client:
        client.send(frame(token_request().encode()))
        gate.wait_arrived()
        since = reload(service)
        wait_for(service, pair_read("device-0001"), since)
        service.stop(seconds=PROMPT)
    service.expect_log([RELOAD, READING_AGAIN, READING_ID, pair_read("device-0001"), *STOPPED], since, without=API)


def test_stop_right_after(world, document):
    seed = random.randrange(2 ** 32)
    print(f"seed {seed}")
    generator = random.Random(seed)
    for _ in range(20):
        service = world.start(document).wait_ready()
        service.send_signal(signal.SIGHUP)
        time.sleep(generator.choice([0, 0, 0.001, 0.01, 0.05]))
        service.stop(generator.choice([signal.SIGTERM, signal.SIGINT]), seconds=PROMPT)
        assert service.log.pairs()[-1] == (MANAGER, "SSO Discovery Service terminated")


def test_nothing_is_left_behind(world, document, own):
    """Whether the pair is read or not."""
    service = world.start(document, environment=without_quarantine()).wait_ready()

    def twice():
        wait_for(service, READY, reload(service))
        key = own.key_path.read_bytes()
        own.key_path.write_bytes(b"garbage")
        wait_for(service, pair_kept(NO_RSA_KEY), reload(service))
        own.key_path.write_bytes(key)

    for _ in range(10):
        twice()
    assert service.api.token_text()
    descriptors, memory = service.open_descriptors(), service.resident_memory_kilobytes()
    threads = len(service.threads())
    for _ in range(100):
        twice()
    assert service.api.token_text()
    wait_until(lambda: len(service.threads()) <= threads, lambda: str(service.threads()))
    assert service.open_descriptors() == descriptors
    assert service.resident_memory_kilobytes() - memory < 1024
