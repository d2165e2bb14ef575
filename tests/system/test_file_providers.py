"""Keys and certificates from files, named directly or by templates, and what is derived from them."""

import os
import pty

import pytest
from cryptography.x509.oid import NameOID

from support.configuration import file_provider, template_provider
from support.device import Device, certificate_pem, ec_private_pem, private_pem, with_unknown_key_algorithm
from support.log import LEVELS, error
from support.texts import (API, CONFIGURING, DISCOVERY, FOUND_DATA, GENERIC_FAILURE, KEYS, MANAGER, READING_ID,
                           cloud_failed, configured, decoded, decrypting, discovery_status, endpoint_found,
                           first_request, initialised, looked_up, looking_up, retrying, template_names, without_cache)

NO_ID = "Cannot retrieve certificate id. Not found"
UNREADABLE_KEY = "Decrypting Discovery data: PEM_read_bio_PrivateKey() FAILED"


@pytest.fixture
def files(device, tmp_path):
    """The device's two files in a folder of their own, to be spoilt."""
    return Device(tmp_path / "own-files", device.key)


def starting_with(world, cloud, files, level="verbose"):
    return world.start(world.document(cloud.discovery_url, file_provider(files), level=level))


# --- the certificate, which is wanted first

@pytest.mark.parametrize("level", LEVELS)
def test_missing_certificate_file_fails_the_initialisation(world, cloud, files, level):
    files.certificate_path.unlink()
    service = starting_with(world, cloud, files, level)
    reason = f"Couldn't open key/certificate file {files.certificate_path}"
    assert service.wait_failed() == reason
    service.expect_main_log([*configured(service), CONFIGURING, retrying(reason)])
    assert not cloud.requests()


def test_pipe_in_the_place_of_the_certificate_is_not_waited_for(world, cloud, files):
    files.certificate_path.unlink()
    os.mkfifo(files.certificate_path)
    assert starting_with(world, cloud, files).wait_failed() == " is empty"


def test_empty_certificate_file_gives_the_text_without_a_name(world, cloud, files):
    files.certificate_path.write_bytes(b"")
    service = starting_with(world, cloud, files)
    assert service.wait_failed() == " is empty"
    service.expect_main_log([*configured(service), CONFIGURING, retrying(" is empty")])


@pytest.mark.parametrize("text", [b"not PEM", b"-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n", b"\0"],
                         ids=["text", "not a certificate", "NUL"])
def test_certificate_that_does_not_parse_has_no_id(world, cloud, files, text):
    files.certificate_path.write_bytes(text)
    service = starting_with(world, cloud, files)
    assert service.wait_failed() == NO_ID
    service.wait_listening()
    assert service.api.request("certificate_id") == {
        "status": "error", "message": "Cloud discovery failed. System is not initialized" + NO_ID}


def test_private_key_in_the_place_of_the_certificate_has_no_id(world, cloud, files):
    files.certificate_path.write_bytes(files.key_pem)
    assert starting_with(world, cloud, files).wait_failed() == NO_ID


def test_certificate_with_an_empty_subject_has_no_id(world, cloud, files):
    files.certificate_path.write_bytes(certificate_pem(files.key))
    service = starting_with(world, cloud, files)
    assert service.wait_failed() == NO_ID
    service.expect_main_log([*configured(service), CONFIGURING, READING_ID, retrying(NO_ID)])


SUBJECTS = [
    ("abc", [(NameOID.COMMON_NAME, "abc")]),
    ("DE/CN=abc", [(NameOID.COUNTRY_NAME, "DE"), (NameOID.COMMON_NAME, "abc")]),
    ("Maker", [(NameOID.ORGANIZATION_NAME, "Maker")]),
    ("a=b", [(NameOID.COMMON_NAME, "a=b")]),
    ("abc/O=Maker", [(NameOID.COMMON_NAME, "abc"), (NameOID.ORGANIZATION_NAME, "Maker")]),
]


@pytest.mark.parametrize("device_id, subject", SUBJECTS, ids=[row[0] for row in SUBJECTS])
def test_certificate_id_is_all_behind_the_first_equals_sign(world, device, tmp_path, device_id, subject):
    files = Device(tmp_path / "named", device.key, subject, device_id)
    cloud = world.new_cloud(files)
    service = starting_with(world, cloud, files).wait_ready()
    service.expect_main_log([*configured(service), *initialised(cloud)])
    assert cloud.requests()[0].target == "/devices/" + device_id
    reply = '{"status":"ok","certificate_id":"%s"}' % device_id.replace("/", "\\/")
    assert service.api.exchange('{"request":"certificate_id"}') == reply.encode()
    assert service.api.token_text() == "access/1"  # the client id of the assertion is judged by the cloud


def test_certificate_id_with_a_blank_goes_into_the_url_as_it_is(world, device, tmp_path):
    """Nothing is escaped, and what becomes of such a URL is the library's affair; the id is on record all the same."""
    files = Device(tmp_path / "named", device.key, [(NameOID.COMMON_NAME, "with blank")], "with blank")
    cloud = world.new_cloud(files)
    service = starting_with(world, cloud, files)
    service.wait_failed()
    assert service.log.pairs(without=API)[len(configured(service)):][:4] == [
        (line.source, line.text) for line in first_request(cloud.discovery_url, "with blank")]


def test_certificate_is_read_behind_other_text(world, cloud, files):
    files.certificate_path.write_bytes(b"subject=CN = other\n\n" + files.certificate_pem)
    files.key_path.write_bytes(b"Key Attributes: <No Attributes>\n" + files.key_pem)
    service = starting_with(world, cloud, files).wait_ready()
    assert service.api.token_text() == "access/1"


@pytest.mark.parametrize("level", LEVELS)
def test_certificate_without_a_usable_public_key_fails_each_token_request(world, cloud, files, level):
    files.certificate_path.write_bytes(with_unknown_key_algorithm(files.certificate_pem))
    service = starting_with(world, cloud, files, level).wait_ready()
    body = f'{{"issuer": "{cloud.url}", "token_endpoint": "{cloud.token_endpoint}"}}'
    found = [*looking_up(cloud.well_known_url), *looked_up(200, body),
             endpoint_found(cloud.token_endpoint)]
    failed = error(KEYS, "X509_get_pubkey() FAILED")
    for before in (found, []):  # the lookup is not repeated, the derivation is
        since = service.log.mark()
        assert service.api.token() == {"status": "error", "message": GENERIC_FAILURE}
        service.expect_log([*before, failed], since, without=API)
    assert not cloud.assertions()


# --- the private key, which is wanted for the first block

def bad_keys():
    """(name, what makes the file's text, the step that fails)"""
    return [
        ("not PEM", lambda files: b"not PEM", "PEM_read_bio_PrivateKey"),
        ("one byte", lambda files: b"\n", "PEM_read_bio_PrivateKey"),
        ("the certificate", lambda files: files.certificate_pem, "PEM_read_bio_PrivateKey"),
        ("cut off", lambda files: files.key_pem[:700], "PEM_read_bio_PrivateKey"),
        ("encrypted", lambda files: private_pem(files.key, b"secret words"), "PEM_read_bio_PrivateKey"),
        ("NUL before the key", lambda files: b"\0" + files.key_pem, "PEM_read_bio_PrivateKey"),
        ("EC", lambda files: ec_private_pem(), "EVP_PKEY_get1_RSA"),
    ]


@pytest.mark.parametrize("level", LEVELS)
@pytest.mark.parametrize("text, step", [pytest.param(*row[1:], id=row[0]) for row in bad_keys()])
def test_unusable_private_key_fails_the_decryption(world, cloud, files, text, step, level):
    files.key_path.write_bytes(text(files))
    service = starting_with(world, cloud, files, level)
    assert service.wait_failed() == without_cache(UNREADABLE_KEY)
    service.expect_main_log([
        *configured(service), *first_request(cloud.discovery_url), *discovery_status(200), FOUND_DATA, decoded(256),
        *decrypting(256), error(DISCOVERY, f"{step}() FAILED"), cloud_failed(UNREADABLE_KEY),
        retrying(without_cache(UNREADABLE_KEY))])


def test_encrypted_key_asks_nobody_for_a_password(world, cloud, files):
    """With a terminal at hand, on which nobody answers."""
    files.key_path.write_bytes(private_pem(files.key, b"secret words"))
    ours, theirs = pty.openpty()
    try:
        service = world.start(world.document(cloud.discovery_url, file_provider(files)), stdin=theirs,
                              wrapper=["setsid", "--ctty"])
        assert service.wait_failed() == without_cache(UNREADABLE_KEY)
        os.set_blocking(ours, False)
        with pytest.raises(BlockingIOError):
            os.read(ours, 1000)
        service.stop()
    finally:
        os.close(ours)
        os.close(theirs)


@pytest.mark.parametrize("spoil, reason", [
    (lambda path: path.unlink(), "Couldn't open key/certificate file {}"),
    (lambda path: path.write_bytes(b""), " is empty"),
], ids=["missing", "empty"])
def test_key_file_that_gives_nothing_fails_the_decryption(world, cloud, files, spoil, reason):
    spoil(files.key_path)
    reason = reason.format(files.key_path)
    service = starting_with(world, cloud, files)
    assert service.wait_failed() == without_cache(reason)
    service.expect_main_log([*configured(service), *first_request(cloud.discovery_url), *discovery_status(200),
                             FOUND_DATA, decoded(256), cloud_failed(reason), retrying(without_cache(reason))])


def test_key_file_is_read_again_after_a_failed_read(world, cloud, files):
    files.key_path.unlink()
    service = starting_with(world, cloud, files)
    service.wait_failed()
    files.key_path.write_bytes(files.key_pem)
    service.stop()  # runs one more attempt
    assert (MANAGER, "Cloud config successfully retrieved. Creating SsoClient") in service.log.pairs()


def test_files_are_read_once_and_survive_a_reset(world, cloud, files):
    service = starting_with(world, cloud, files).wait_ready()
    files.key_path.unlink()
    files.certificate_path.unlink()
    since = service.log.mark()
    service.api.request("reset")
    service.wait_ready(since)
    assert service.api.token_text() == "access/1"
    assert service.log.count(KEYS, READING_ID.text) == 1


def test_key_of_another_device_fails_the_decryption(world, cloud, files, other_device):
    files.key_path.write_bytes(other_device.key_pem)
    reason = "Decrypting Discovery data: RSA_private_decrypt() FAILED"
    service = starting_with(world, cloud, files)
    assert service.wait_failed() == without_cache(reason)
    assert (DISCOVERY, "RSA_private_decrypt() FAILED") in service.log.pairs()


# --- file names made from templates

@pytest.mark.parametrize("environment, name", [("staging", "staging"), ("Prod", "Prod"), ("PROD", "PROD"),
                                               ("x" * 300, "x" * 300), ("%s %d", "%s %d"), (" prod", " prod")],
                         ids=["staging", "Prod", "PROD", "long", "percent signs", "blank prod"])
def test_environment_takes_its_place_in_both_templates(world, cloud, environment, name):
    key, certificate = "key-{}.pem", "the-certificate-of-{}"
    if len(name) < 200:
        folder = world.new_folder("templates")
        (folder / key.format(name)).write_bytes(world.device.key_pem)
        (folder / certificate.format(name)).write_bytes(world.device.certificate_pem)
        key, certificate = f"{folder}/{key}", f"{folder}/{certificate}"
    provider = template_provider(key.format("%s"), certificate.format("%s"))
    service = world.start(world.document(cloud.discovery_url, provider), environment={"CLOUD_ENV": environment})
    names = template_names(key.format(name), certificate.format(name))
    if len(name) < 200:
        service.wait_ready()
        service.expect_main_log([*configured(service, environment, names), *initialised(cloud)])
    else:
        reason = f"Couldn't open key/certificate file {certificate.format(name)}"
        assert service.wait_failed() == reason
        service.expect_main_log([*configured(service, environment, names), CONFIGURING, retrying(reason)])


@pytest.mark.parametrize("environment", [None, "", "prod"])
@pytest.mark.parametrize("level", LEVELS)
def test_production_takes_the_template_texts_themselves_for_names(world, cloud, environment, level):
    """The configured production names exist and would work; they are never opened."""
    folder = world.new_folder("templates")
    (folder / "key-%s").write_bytes(world.device.key_pem)
    (folder / "certificate-%s").write_bytes(world.device.certificate_pem)
    provider = {**template_provider(folder / "key-%s", folder / "certificate-%s"),
                "prod_key_path": str(folder / "other.key"), "prod_certificate_path": str(folder / "other.crt")}
    service = world.start(world.document(cloud.discovery_url, provider, level=level),
                          environment={} if environment is None else {"CLOUD_ENV": environment}).wait_ready()
    service.expect_main_log([
        *configured(service, environment or "", template_names(folder / "key-%s", folder / "certificate-%s")),
        *initialised(cloud)])


def test_production_names_of_the_configuration_are_never_opened(world, cloud, device):
    provider = {**template_provider("/nonexistent/%s.key", "/nonexistent/%s.crt"),
                "prod_key_path": str(device.key_path), "prod_certificate_path": str(device.certificate_path)}
    service = world.start(world.document(cloud.discovery_url, provider))
    assert service.wait_failed() == "Couldn't open key/certificate file /nonexistent/%s.crt"
