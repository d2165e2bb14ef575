"""The files of key and certificate are replaced or vanish while the service runs."""

import re
import signal

import pytest
from cells import RETRYING, UNCHANGED, WRITTEN, Cell, files_in, matrix
from machine import judge_all

from support.configuration import file_provider
from support.device import Device
from support.exchanges import ID_REQUEST, token_request
from support.log import error, info
from support.texts import (MANAGER, NO_ID, READY, asking_token, expires, retrying, token_answer, token_sent,
                           without_cache)

FIRST, SECOND = (r'{"status":"ok","token":"access\/%d"}' % number for number in (1, 2))
ANSWER = '{{"access_token": "access/{}", "token_type": "Bearer", "expires_in": 3600}}'


@pytest.fixture
def own(device, tmp_path):
    """The device with files of its own, which the test may change."""
    return Device(tmp_path / "own", device.key)


def replace(files, other):
    files.key_path.write_bytes(other.key_pem)
    files.certificate_path.write_bytes(other.certificate_pem)


def remove(files, _):
    files.key_path.unlink()
    files.certificate_path.unlink()


def remove_key(files, _):
    files.key_path.unlink()


def spoil(files, _):
    files.key_path.write_bytes(b"not a key")
    files.certificate_path.write_bytes(b"not a certificate")


def clear(files, _):
    files.key_path.write_bytes(b"")
    files.certificate_path.write_bytes(b"")


def goes_on(fault, change):
    """The next scope's token is got with the key that was read before."""
    return Cell(fault, log=(*asking_token("next"), *token_answer(200, ANSWER.format(2)), expires(3600),
                            token_sent(SECOND)), reply=SECOND, files=WRITTEN, script=change)


@matrix(
    "Key and certificate change while the service runs",
    goes_on("key and certificate replaced", replace),
    goes_on("key file vanishes", remove_key),
    goes_on("key and certificate vanish", remove),
    goes_on("key and certificate emptied", clear),
    goes_on("key and certificate overwritten with something else", spoil))
def test_what_was_read_once_is_used_until_the_end(cell, judge, world, cloud, own, other_device):
    service = world.start(world.document(cloud.discovery_url, file_provider(own))).wait_ready()
    assert service.api.token_text() == "access/1"
    before = files_in(own.key_path.parent)
    cell.script(own, other_device)
    since = service.log.mark()
    reply = service.api.exchange(token_request("next"))
    judge_all(judge, service, reply, since, (before, files_in(own.key_path.parent)))


@matrix(
    "Key and certificate change, then a reset",
    *(Cell(fault, log=(*asking_token("next"), *token_answer(200, ANSWER.format(2)), token_sent(SECOND)), reply=SECOND,
           files=WRITTEN, script=change)
      for fault, change in (("replaced before a reset", replace), ("vanished before a reset", remove))))
def test_reset_reads_neither_key_nor_certificate(cell, judge, world, cloud, own, other_device):
    service = world.start(world.document(cloud.discovery_url, file_provider(own))).wait_ready()
    assert service.api.token_text() == "access/1"
    before = files_in(own.key_path.parent)
    cell.script(own, other_device)
    since = service.log.mark()
    assert service.api.request("reset") == {"status": "ok"}
    service.wait_ready(since)
    judge_all(judge, service, service.api.exchange(token_request("next")), since,
              (before, files_in(own.key_path.parent)))


RECEIVED = info(MANAGER, "Received RELOAD signal")
READING = info(MANAGER, "Reading the key and the certificate again")


def told(fault, change, *lines):
    return Cell(fault, log=(RECEIVED, READING, *lines, *asking_token("next"), token_sent(SECOND)), reply=SECOND,
                files=WRITTEN, script=change)


def stays(fault, change, reason):
    return told(fault, change, error(MANAGER, f"Couldn't read the key and the certificate again: {reason}. "
                                              "The old ones stay in use"))


@matrix(
    "Key and certificate change, then SIGHUP",
    told("replaced before SIGHUP", replace,
         info(MANAGER, "The key and the certificate of device-0001 are read. Starting over with them"), READY),
    stays("vanished before SIGHUP", remove, "Couldn't open key/certificate file {key}"),
    stays("emptied before SIGHUP", clear, " is empty"),
    stays("overwritten with something else before SIGHUP", spoil, "The private key is no RSA key of 2048 bits that can be read"))
def test_hangup_reads_what_can_be_used(cell, judge, world, cloud, own, other_device):
    service = world.start(world.document(cloud.discovery_url, file_provider(own))).wait_ready()
    assert service.api.token_text() == "access/1"
    before = files_in(own.key_path.parent)
    cell.script(own, other_device)
    if cell.script is replace:
        cloud.device = other_device
    since = service.log.mark()
    service.send_signal(signal.SIGHUP)
    if cell.script is replace:
        service.wait_ready(since)
    else:
        service.log.wait_for(MANAGER, re.compile("Couldn't read the key and the certificate again: .*"), since)
    judge_all(judge, service, service.api.exchange(token_request("next")), since,
              (before, files_in(own.key_path.parent)), key=own.key_path)


@matrix(
    "Key and certificate change before a start",
    Cell("replaced before a restart", log=(*asking_token("next"), *token_answer(200, ANSWER.format(2)),
                                           token_sent(SECOND)), reply=SECOND, files=WRITTEN, script=replace))
def test_restart_reads_the_new_pair(cell, judge, world, cloud, own, other_device):
    document = world.document(cloud.discovery_url, file_provider(own))
    service = world.start(document).wait_ready()
    assert service.api.token_text() == "access/1"
    service.stop()
    before = files_in(own.key_path.parent)
    cell.script(own, other_device)
    cloud.device = other_device
    service = world.start(document).wait_ready()
    reply = service.api.exchange(token_request("next"))
    judge_all(judge, service, reply, 0, (before, files_in(own.key_path.parent)))


def fails(fault, change, reason):
    """The reason names the files as {key} and {certificate}; in a reply, each slash in them has a backslash."""
    told = reason.replace("/", r"\/").replace("key}", "key_told}").replace("certificate}", "certificate_told}")
    refused = f'{{"status":"error","message":"Cloud discovery failed. System is not initialized{told}"}}'
    return Cell(fault, log=(retrying(reason),), reply=refused, state=RETRYING, files=UNCHANGED, script=change)


@matrix(
    "Key and certificate at the start",
    fails("certificate file missing", remove, "Couldn't open key/certificate file {certificate}"),
    fails("key file missing", remove_key, without_cache("Couldn't open key/certificate file {key}")),
    fails("key and certificate empty", clear, " is empty"),
    fails("key and certificate are something else", spoil, NO_ID))
def test_attempts_fail_clearly_without_a_usable_pair(cell, judge, world, cloud, own, other_device):
    cell.script(own, other_device)
    (own.key_path.parent / "other").write_bytes(b"")  # so that the folder is not empty in any case
    before = files_in(own.key_path.parent)
    service = world.start(world.document(cloud.discovery_url, file_provider(own)))
    service.wait_failed()
    service.wait_listening()
    names = {"key": own.key_path, "certificate": own.certificate_path}
    in_replies = {f"{name}_told": str(path).replace("/", r"\/") for name, path in names.items()}
    judge_all(judge, service, service.api.exchange(ID_REQUEST), files=(before, files_in(own.key_path.parent)),
              **names, **in_replies)
