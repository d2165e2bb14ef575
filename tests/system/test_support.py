"""The tests' own tools against each other: a fake that lets everything pass would prove nothing."""

import base64
import json
import socket
import stat
import threading
import time

import pytest
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import padding

from support.api_client import ApiClient
from support.assertion import faults_of_assertion
from support.configuration import REMOVED, changed, configuration, file_provider
from support.fake_cloud import FakeCloud
from support.fake_key_service import PRIVATE_KEY, FakeKeyService, framed
from support.framing import frame
from support.http_server import Raw, Reply
from support.log import Log, debug, error, info, shown
from support.ports import LOOPBACK, ReservedPort
from support.service import Service

CLAIMS = {"iss": "device-0001", "sub": "device-0001", "aud": "http://there/token",
          "jti": "01234567-89ab-4cde-8f01-23456789abcd"}


def signed(key, claims, header=None):
    def part(value):
        return base64.urlsafe_b64encode(json.dumps(value).encode()).rstrip(b"=")
    text = part(header or {"alg": "RS256", "typ": "JWT"}) + b"." + part(claims)
    signature = key.sign(text, padding.PKCS1v15(), hashes.SHA256())
    return (text + b"." + base64.urlsafe_b64encode(signature).rstrip(b"=")).decode()


def claims_with(**changes):
    now = int(time.time())
    result = {**CLAIMS, "iat": now, "nbf": now, "exp": now + 300, **changes}
    return {name: value for name, value in result.items() if value is not REMOVED}


def faults(device, token):
    return faults_of_assertion(token, device.public_key, "device-0001", "http://there/token")


def test_right_assertion_has_no_faults(device):
    assert faults(device, signed(device.key, claims_with())) == []


@pytest.mark.parametrize("ahead, faulty", [(0, False), (30, False), (-30, True), (3600, True), (-3600, True)])
def test_assertion_is_judged_by_the_clock_that_made_it(device, ahead, faulty):
    token = signed(device.key, claims_with())
    judged = faults_of_assertion(token, device.public_key, "device-0001", "http://there/token", time.time() + ahead)
    assert bool(judged) == faulty


@pytest.mark.parametrize("changes", [
    {"iss": "other"}, {"sub": "other"}, {"aud": "http://here/token"}, {"aud": ["http://there/token"]}, {"more": 1},
    {"jti": REMOVED}, {"jti": "01234567-89AB-4cde-8f01-23456789abcd"}, {"jti": "01234567-89ab-1cde-8f01-23456789abcd"},
    {"jti": "01234567-89ab-4cde-cf01-23456789abcd"}, {"iat": 0, "nbf": 0, "exp": 300}, {"nbf": 0}, {"exp": 0},
    {"iat": 1.5}, {"exp": "300"}, {"iat": REMOVED},
], ids=lambda changes: str(changes).replace(str(REMOVED), "removed"))
def test_wrong_claim_is_a_fault(device, changes):
    assert faults(device, signed(device.key, claims_with(**changes)))


def test_wrong_key_or_header_is_a_fault(device, other_device):
    assert faults(device, signed(other_device.key, claims_with()))
    assert faults(device, signed(device.key, claims_with(), {"alg": "RS256"}))
    assert faults(device, signed(device.key, claims_with(), {"alg": "RS256", "typ": "JWT", "kid": "1"}))


def exchange(port, data):
    with socket.create_connection((LOOPBACK, port), 10) as connection:
        connection.sendall(data)
        connection.settimeout(10)
        received = b""
        while piece := connection.recv(65536):
            received += piece
        return received


@pytest.fixture
def fake(device):
    cloud = FakeCloud(device)
    yield cloud
    cloud.close()


def port_of(cloud):
    return int(cloud.url.rpartition(":")[2])


def test_discovery_reply_decrypts_to_the_payload(fake, device):
    reply = exchange(port_of(fake), b"GET /devices/device-0001 HTTP/1.1\r\nHost: x\r\n\r\n")
    body = json.loads(reply.partition(b"\r\n\r\n")[2])
    assert json.loads(device.decrypt(base64.b64decode(body["data"]))) == fake.payload()


def test_requests_are_recorded_byte_for_byte(fake):
    sent = b"POST /x?y HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\n\0\r\n"
    exchange(port_of(fake), sent)
    request, = fake.requests()
    assert (request.raw, request.target, request.body) == (sent, "/x?y", b"\0\r\n")


def test_scripted_replies_come_in_order_and_the_last_one_stays(fake):
    fake.script("/x", Reply(500), Raw(b"bytes"), Reply(200, b"end"))
    replies = [exchange(port_of(fake), b"GET /x HTTP/1.1\r\n\r\n") for _ in range(4)]
    assert replies[0].startswith(b"HTTP/1.1 500 ") and replies[1] == b"bytes"
    assert replies[2] == replies[3] and replies[2].endswith(b"end")


def test_bad_token_request_is_on_record(fake):
    exchange(port_of(fake), b"POST /token HTTP/1.1\r\nContent-Length: 10\r\n\r\ngrant_type")
    assert len(fake.faults) == 1


def test_key_service_records_all_that_it_is_sent(device):
    service = FakeKeyService(device)
    service.script(PRIVATE_KEY, framed(b"text", ending="wait"))
    with socket.create_connection((LOOPBACK, service.port), 10) as connection:
        connection.sendall(b"privatekey")
        assert connection.recv(100) == frame(b"text")
        connection.sendall(b"\n")
    while not service.exchanges:
        time.sleep(0.001)
    assert service.exchanges == [b"privatekey\n"]
    service.close()


def test_reserved_port_can_be_bound_by_others_until_it_listens():
    port = ReservedPort()
    with socket.socket() as other:
        other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        other.bind((LOOPBACK, port.number))
        other.listen()
    port.listen()
    with socket.socket() as other:
        other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        with pytest.raises(OSError):
            other.bind((LOOPBACK, port.number))
    port.close()


def test_client_notices_bytes_behind_the_reply():
    listener = socket.create_server((LOOPBACK, 0))

    def serve():
        connection, _ = listener.accept()
        with connection:
            connection.recv(100)
            connection.sendall(frame(b"{}") + b"x")

    threading.Thread(target=serve, daemon=True).start()
    with pytest.raises(AssertionError, match="after the reply"):
        ApiClient(listener.getsockname()[1]).exchange(b"{}")
    listener.close()


def test_log_lines_are_taken_apart(tmp_path):
    path = tmp_path / "log"
    path.write_bytes(b"LOG START Sun Nov 15 09:12:03 2026\n09:12:03.045 [a/Source:7] one\n"
                     b"09:12:03.046 [B:8] two\nmore\n09:12:03.047 [B:9] unfini")
    log = Log(path)
    assert log.pairs() == [("a/Source", "one"), ("B", "two\nmore")]
    with open(path, "ab") as file:
        file.write(b"shed \xff\n")
    assert log.pairs(since=2) == [("B", "unfinished \udcff")]
    assert log.preamble == ["LOG START Sun Nov 15 09:12:03 2026"]
    assert log.pairs(only="B", since=2) == log.pairs(without="a/Source", since=2)


def test_expected_lines_are_shown_by_level():
    lines = [error("A", "1"), info("A", "3"), debug("A", "4")]
    assert shown(lines, "warning") == [("A", "1")]
    assert shown(lines, "info") == [("A", "1"), ("A", "3")]
    assert shown(lines, "verbose") == [("A", "1"), ("A", "3"), ("A", "4")]


def test_changed_configuration_leaves_the_original(device):
    document = configuration("http://x/", file_provider(device), [1])
    assert "url" not in changed(document, "sso.cloud_config.url", REMOVED)["sso"]["cloud_config"]
    other = changed(document, "sso.api_providers.0.port", "x")
    assert other["sso"]["api_providers"] == [{"type": "socket", "port": "x"}]
    assert document == configuration("http://x/", file_provider(device), [1])


def script(tmp_path, text):
    path = tmp_path / "program"
    path.write_text("#!/bin/sh\n" + text)
    path.chmod(path.stat().st_mode | stat.S_IXUSR)
    return Service(str(path), tmp_path, "{}")


def test_process_that_ignores_the_stop_signal_is_a_failure_and_is_gone(tmp_path):
    service = script(tmp_path, "trap '' TERM; echo '[X:1] ready'; while :; do sleep 0.05; done")
    service.log.wait_for("X", "ready")
    with pytest.raises(AssertionError, match="still running"):
        service.close(seconds=0.2)
    assert service.process.returncode == -9


@pytest.mark.parametrize("text", ["echo 'ERROR: AddressSanitizer: heap' >&2", "echo 'x.cpp:1:2: runtime error: y' >&2",
                                  "echo 'WARNING: ThreadSanitizer: data race' >&2", "echo anything >&2", "exit 3"])
def test_report_on_standard_error_or_another_status_is_a_failure(tmp_path, text):
    service = script(tmp_path, text + "\nexit 0")
    with pytest.raises(AssertionError):
        service.expect_exit(0)
