"""The backup file: when it is written, when it is read, and what is logged in which order."""

import pytest
from cryptography.x509.oid import NameOID

from support.configuration import file_provider
from support.curl_text import COULD_NOT_CONNECT, curl_text
from support.device import Device
from support.fake_cloud import data_body
from support.http_server import Raw, Reply
from support.log import LEVELS, error, info
from support.texts import (API, DISCOVERY, FOUND_DATA, MANAGER, READY, cloud_failed, configured, decoded, decrypted,
                           decrypting, discovery_status, first_request, good_reply, initialised, retrying,
                           well_known_found)

BOTH_FAILED = "Couldn't retrieve cloud configure from the cloud and the backup file"
NOT_AN_OBJECT = "Input is not a valid object"
URL_MISSING = "config.endpoints.veloIdConfiguration not found"


def stored(name):
    return info(DISCOVERY, f"Cloud config data was successfully stored in {name}")


def loaded(name):
    return info(DISCOVERY, f"Cloud config data successfully retrieved from {name}")


def backup_failed(reason):
    return error(DISCOVERY, f"Couldn't retrieve configuration from the backup file: {reason}")


def unusable(text):
    return [error(DISCOVERY, f"Error processing JSON returned by Discovery Request: {text}")]


@pytest.fixture
def folder(world):
    return world.new_folder("cache")


@pytest.fixture
def backup(folder):
    return folder / "device-0001.cfg"


def starting(world, cloud, folder, level="verbose", **options):
    return world.start(world.document(cloud.discovery_url, cache_folder=folder, level=level), **options)


# --- writing

@pytest.mark.parametrize("level", LEVELS)
def test_good_reply_is_stored_byte_for_byte(world, cloud, folder, backup, level):
    body = b' {"more":1 ,"data":%s,"tail":[ ]}\r\n \n' % cloud.discovery_body()[len(b'{"data":'):-1]
    cloud.script(cloud.discovery_path, Reply(200, body))
    service = starting(world, cloud, folder, level).wait_ready()
    service.expect_main_log([*configured(service), *initialised(cloud, stored(backup))])
    assert backup.read_bytes() == body
    assert [file.name for file in folder.iterdir()] == ["device-0001.cfg"]
    assert b"veloIdConfiguration" not in backup.read_bytes()


def test_earlier_contents_are_replaced_whole(world, cloud, folder, backup):
    backup.write_bytes(b"x" * 100000)
    body = cloud.discovery_body()
    cloud.script(cloud.discovery_path, Reply(200, body))
    starting(world, cloud, folder).wait_ready()
    assert backup.read_bytes() == body


@pytest.mark.parametrize("ending", ["", "/"], ids=["without slash", "with slash"])
def test_folder_is_used_with_and_without_its_slash(world, cloud, folder, backup, ending):
    service = starting(world, cloud, f"{folder}{ending}").wait_ready()
    assert (DISCOVERY, stored(backup).text) in service.log.pairs()
    assert backup.exists()


def test_empty_folder_means_the_working_directory(world, cloud):
    service = starting(world, cloud, "").wait_ready()
    assert (DISCOVERY, stored("device-0001.cfg").text) in service.log.pairs()
    assert (service.folder / "device-0001.cfg").exists()


def test_missing_folder_is_not_created_and_success_is_logged_all_the_same(world, cloud, folder):
    place = folder / "missing"
    service = starting(world, cloud, place).wait_ready()
    service.expect_main_log([*configured(service), *initialised(cloud, stored(place / "device-0001.cfg"))])
    assert not place.exists()


def test_file_that_cannot_be_written_is_logged_as_stored(world, cloud, folder, backup):
    backup.mkdir()
    service = starting(world, cloud, folder).wait_ready()
    assert (DISCOVERY, stored(backup).text) in service.log.pairs()
    assert backup.is_dir()


@pytest.mark.parametrize("exists", [False, True])
def test_id_with_a_slash_names_a_file_in_a_folder_below(world, device, tmp_path, folder, exists):
    subject = [(NameOID.COUNTRY_NAME, "DE"), (NameOID.COMMON_NAME, "abc")]
    files = Device(tmp_path / "named", device.key, subject, "DE/CN=abc")
    if exists:
        (folder / "DE").mkdir()
    cloud = world.new_cloud(files)
    service = world.start(world.document(cloud.discovery_url, file_provider(files), cache_folder=folder)).wait_ready()
    name = folder / "DE" / "CN=abc.cfg"
    assert (DISCOVERY, stored(name).text) in service.log.pairs()
    assert name.exists() == exists


def test_reset_stores_the_newer_reply(world, cloud, folder, backup):
    service = starting(world, cloud, folder).wait_ready()
    newer = cloud.discovery_body()
    cloud.script(cloud.discovery_path, Reply(200, newer))
    since = service.log.mark()
    service.api.request("reset")
    service.wait_ready(since)
    assert backup.read_bytes() == newer


def test_without_caching_nothing_is_written(world, cloud, folder):
    document = world.document(cloud.discovery_url, cache_folder=folder)
    document["sso"]["cloud_config"]["cache_enabled"] = False
    service = world.start(document).wait_ready()
    service.expect_main_log([*configured(service), *initialised(cloud)])
    assert not list(folder.iterdir())


def test_without_caching_no_file_is_read(world, cloud, folder, backup):
    backup.write_bytes(cloud.discovery_body())
    cloud.script(cloud.discovery_path, Reply(500))
    document = world.document(cloud.discovery_url, cache_folder=folder)
    document["sso"]["cloud_config"]["cache_enabled"] = False
    service = world.start(document)
    assert service.wait_failed().endswith(" Cloud config caching not enabled")
    assert (DISCOVERY, loaded(backup).text) not in service.log.pairs()


# --- falling back

def cloud_faults():
    """(name, reply for a cloud, lines up to the failure, cause)"""
    def status_failed(cloud):
        return f"Couldn't retrieve discovery data from {cloud.discovery_url}. Curl returned: 503"

    def payload_failed(payload, text):
        return (lambda cloud: Reply(200, cloud.discovery_body(payload)),
                [*discovery_status(200), FOUND_DATA, *decrypted(256), *unusable(text)],
                lambda cloud: f"Error processing JSON returned by Discovery Request.{text}")

    return [
        ("status", lambda cloud: Reply(503), discovery_status(503), status_failed),
        ("not JSON", lambda cloud: Reply(200, b"hello"), [*discovery_status(200), *unusable(NOT_AN_OBJECT)],
         lambda cloud: f"Error processing JSON returned by Discovery Request.{NOT_AN_OBJECT}"),
        ("no data", lambda cloud: Reply(200, b"{}"), [*discovery_status(200), *unusable("data")],
         lambda cloud: "Error processing JSON returned by Discovery Request.data"),
        ("does not decrypt", lambda cloud: Reply(200, data_body(b"x" * 256)),
         [*discovery_status(200), FOUND_DATA, decoded(256), *decrypting(256),
          error(DISCOVERY, "RSA_private_decrypt() FAILED")],
         lambda cloud: "Decrypting Discovery data: RSA_private_decrypt() FAILED"),
        ("payload not JSON", *payload_failed("hello", NOT_AN_OBJECT)),
    ]


@pytest.mark.parametrize("level", LEVELS)
@pytest.mark.parametrize("reply, lines, cause", [pytest.param(*row[1:], id=row[0]) for row in cloud_faults()])
def test_unusable_reply_leaves_the_file_and_the_file_is_used(world, cloud, folder, backup, reply, lines, cause, level):
    backup.write_bytes(cloud.discovery_body())
    before = file_state(backup)
    cloud.script(cloud.discovery_path, reply(cloud))
    service = starting(world, cloud, folder, level).wait_ready()
    service.expect_main_log([
        *configured(service), *first_request(cloud.discovery_url), *lines, cloud_failed(cause(cloud), caching=True),
        loaded(backup), *good_reply(cloud)[1:], READY])
    assert file_state(backup) == before
    assert service.api.token_text() == "access/1"
    assert service.api.request("data")["discovery_data"] == cloud.payload()


def file_state(path):
    status = path.stat()
    return path.read_bytes(), status.st_mtime_ns, status.st_ino


def test_unreachable_cloud_and_a_good_file_make_a_ready_service(world, cloud, folder, backup):
    backup.write_bytes(cloud.discovery_body())
    url = f"http://127.0.0.1:{world.new_port()}/devices/"
    service = world.start(world.document(url, cache_folder=folder)).wait_ready()
    text = curl_text(COULD_NOT_CONNECT)
    service.expect_main_log([
        *configured(service), *first_request(url), error(DISCOVERY, f"curl_easy_perform() failed: {text}"),
        cloud_failed(f"Couldn't retrieve discovery data from {url} Curl failed. Error: {text}", caching=True),
        loaded(backup), *good_reply(cloud)[1:], READY])
    assert service.api.token_text() == "access/1"


def backup_faults():
    """(name, what the file holds for a cloud and another device; None for no file; lines, reason for a file name)"""
    unreadable = (unusable(NOT_AN_OBJECT), f"Error processing JSON returned by Discovery Request.{NOT_AN_OBJECT}")
    other_key = ([FOUND_DATA, decoded(256), *decrypting(256), error(DISCOVERY, "RSA_private_decrypt() FAILED")],
                 "Decrypting Discovery data: RSA_private_decrypt() FAILED")
    return [
        ("no file", lambda cloud, other: None, None, "Couldn't open cloud discover backup config file {}"),
        ("empty", lambda cloud, other: b"", None, " is empty"),
        ("text", lambda cloud, other: b"hello", *unreadable),
        ("cut off", lambda cloud, other: cloud.discovery_body()[:200], *unreadable),
        ("other key", lambda cloud, other: data_body(other.encrypt(b"{}")), *other_key),
        ("no data", lambda cloud, other: b"{}", unusable("data"),
         "Error processing JSON returned by Discovery Request.data"),
        ("no URL", lambda cloud, other: cloud.discovery_body("{}"), [FOUND_DATA, *decrypted(256)], URL_MISSING),
    ]


@pytest.mark.parametrize("level", LEVELS)
@pytest.mark.parametrize("contents, lines, reason", [pytest.param(*row[1:], id=row[0]) for row in backup_faults()])
def test_neither_cloud_nor_file(world, cloud, folder, backup, other_device, contents, lines, reason, level):
    contents = contents(cloud, other_device)
    if contents is not None:
        backup.write_bytes(contents)
    cloud.script(cloud.discovery_path, Reply(503))
    service = starting(world, cloud, folder, level)
    assert service.wait_failed() == BOTH_FAILED
    status = f"Couldn't retrieve discovery data from {cloud.discovery_url}. Curl returned: 503"
    service.expect_main_log([
        *configured(service), *first_request(cloud.discovery_url), *discovery_status(503),
        cloud_failed(status, caching=True), *([] if lines is None else [loaded(backup), *lines]),
        backup_failed(reason.format(backup)), retrying(BOTH_FAILED)])
    assert (backup.read_bytes() if backup.exists() else None) == contents, "a backup attempt never writes"


def test_both_failures_are_told_to_clients_in_one_text(world, cloud, folder):
    cloud.script(cloud.discovery_path, Raw(b""))
    service = starting(world, cloud, folder)
    service.wait_failed()
    service.wait_listening()
    assert service.api.token() == {"status": "error", "message": f"Cloud discovery failed. {BOTH_FAILED}"}


@pytest.mark.parametrize("payload, more", [
    ("{}", []), ('{"config":{"endpoints":{"veloIdConfiguration":5}}}', []),
    ('{"config":{"endpoints":{"veloIdConfiguration":""}}}', [well_known_found("")]),
], ids=["no config", "a number", "empty"])
def test_reply_without_the_url_replaces_the_file_and_fails_again_from_it(world, cloud, folder, backup, payload, more):
    backup.write_bytes(cloud.discovery_body())
    body = cloud.discovery_body(payload)
    cloud.script(cloud.discovery_path, Reply(200, body))
    service = starting(world, cloud, folder)
    assert service.wait_failed() == BOTH_FAILED
    service.expect_main_log([
        *configured(service), *first_request(cloud.discovery_url), *discovery_status(200), FOUND_DATA, *decrypted(256),
        *more, stored(backup), cloud_failed(URL_MISSING, caching=True), loaded(backup), FOUND_DATA, *decrypted(256),
        *more, backup_failed(URL_MISSING), retrying(BOTH_FAILED)])
    assert backup.read_bytes() == body


def test_file_of_an_earlier_run_serves_the_next_one(world, cloud, folder):
    starting(world, cloud, folder).wait_ready().stop()
    cloud.script(cloud.discovery_path, Raw(b""))
    service = starting(world, cloud, folder).wait_ready()
    assert service.api.token_text() == "access/1"


def test_key_that_fails_fails_for_the_file_as_well(world, cloud, folder, backup, device, tmp_path):
    files = Device(tmp_path / "own-files", device.key)
    files.key_path.write_bytes(b"not PEM")
    backup.write_bytes(cloud.discovery_body())
    service = world.start(world.document(cloud.discovery_url, file_provider(files), cache_folder=folder))
    assert service.wait_failed() == BOTH_FAILED
    reason = "Decrypting Discovery data: PEM_read_bio_PrivateKey() FAILED"
    assert service.log.pairs(without=API)[-2:] == [(DISCOVERY, backup_failed(reason).text),
                                        (MANAGER, retrying(BOTH_FAILED).text)]
