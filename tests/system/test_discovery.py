"""The discovery request, what may come back, and its decryption: every outcome with its whole log."""

import base64
import json

import pytest

from support.curl_text import (COULD_NOT_CONNECT, GOT_NOTHING, PARTIAL_FILE, RECEIVE_ERROR, TOO_MANY_REDIRECTS,
                               UNSUPPORTED_PROTOCOL, curl_text)
from support.device import LARGEST_PLAINTEXT
from support.fake_cloud import data_body
from support.http_server import Raw, Reply, redirect
from support.log import LEVELS, error
from support.texts import (API, DISCOVERY, FOUND_DATA, READY, cloud_failed, configured, decoded, decrypted,
                           decrypting, discovery_status, first_request, good_reply, initialised, retrying,
                           well_known_found, without_cache)

URL_MISSING = "config.endpoints.veloIdConfiguration not found"
NOT_AN_OBJECT = "Input is not a valid object"


def status_failed(url, code):
    return f"Couldn't retrieve discovery data from {url}. Curl returned: {code}"


def transfer_failed(url, code):
    return f"Couldn't retrieve discovery data from {url} Curl failed. Error: {curl_text(code)}"


# --- the request

def test_request_is_a_plain_get_of_the_prefix_and_the_device_id(world, cloud):
    world.start_ready(cloud)
    request, = cloud.requests()
    assert (request.method, request.target, request.version) == ("GET", "/devices/device-0001", "HTTP/1.1")
    assert request.headers == (("Host", cloud.url.removeprefix("http://")), ("Accept", "*/*"))
    assert request.body == b""


@pytest.mark.parametrize("prefix, target", [("/devices", "/devicesdevice-0001"), ("/find?id=", "/find?id=device-0001"),
                                            ("/a%20b/", "/a%20b/device-0001"), ("/", "/device-0001")])
def test_prefix_and_id_are_joined_without_anything_between(world, cloud, prefix, target):
    cloud.script(target, Reply(200, cloud.discovery_body()))
    service = world.start(world.document(cloud.url + prefix)).wait_ready()
    assert [request.target for request in cloud.requests()] == [target]
    service.stop()


def test_empty_url_fails_the_initialisation(world, cloud):
    service = world.start(world.document(""))
    reason = "Cannot create Discovery: endpoint URL not specified"
    assert service.wait_failed() == reason
    assert (DISCOVERY, "Making discovery request to ") not in service.log.pairs()


@pytest.mark.parametrize("status, count", [(301, 2), (302, 1), (302, 50), (303, 1), (307, 2), (308, 2)])
def test_redirects_are_followed_fifty_times(world, cloud, status, count):
    steps = [cloud.discovery_path, *(f"/step/{number}" for number in range(count))]
    for step, following in zip(steps, steps[1:]):
        cloud.script(step, redirect(following, status))
    cloud.script(steps[-1], Reply(200, cloud.discovery_body()))
    service = world.start_ready(cloud)
    assert [request.target for request in cloud.requests()] == steps
    service.expect_main_log([*configured(service), *initialised(cloud)])


def test_the_fifty_first_redirect_is_too_many(world, cloud):
    cloud.script(cloud.discovery_path, redirect(cloud.discovery_path))
    service = world.start(world.document(cloud.discovery_url))
    assert service.wait_failed() == without_cache(transfer_failed(cloud.discovery_url, TOO_MANY_REDIRECTS))
    assert len(cloud.requests()) == 51


def test_status_after_a_redirect_is_that_of_the_last_reply(world, cloud):
    cloud.script(cloud.discovery_path, redirect("/elsewhere"))
    service = world.start(world.document(cloud.discovery_url))
    assert service.wait_failed() == without_cache(status_failed(cloud.discovery_url, 404))


@pytest.mark.parametrize("status", [200, 201, 206, 299])
def test_any_status_from_200_to_299_is_good(world, cloud, status):
    cloud.script(cloud.discovery_path, Reply(status, cloud.discovery_body()))
    service = world.start_ready(cloud)
    assert (DISCOVERY, discovery_status(status)[0].text) in service.log.pairs()


# --- failures of the transfer

TRANSFER_FAULTS = [
    ("closed at once", Raw(b""), GOT_NOTHING),
    ("body cut off", Raw(b"HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n{\"data\":"), PARTIAL_FILE),
    ("reset inside the body", Raw(b"HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n{", "reset"), RECEIVE_ERROR),
    ("not HTTP", Raw(b"hello, this is not the protocol at all\r\n\r\n"), UNSUPPORTED_PROTOCOL),
]


@pytest.mark.parametrize("level", LEVELS)
@pytest.mark.parametrize("reply, code", [pytest.param(*row[1:], id=row[0]) for row in TRANSFER_FAULTS])
def test_transfer_failure_is_told_in_the_librarys_words(world, cloud, reply, code, level):
    cloud.script(cloud.discovery_path, reply)
    expect_failure(world, cloud, level, [error(DISCOVERY, f"curl_easy_perform() failed: {curl_text(code)}")],
                   transfer_failed(cloud.discovery_url, code))


@pytest.mark.parametrize("level", LEVELS)
def test_unreachable_cloud_fails_and_no_file_is_read(world, level):
    url = f"http://127.0.0.1:{world.new_port()}/devices/"
    service = world.start(world.document(url, level=level))
    cause = transfer_failed(url, COULD_NOT_CONNECT)
    assert service.wait_failed() == without_cache(cause)
    service.expect_main_log([
        *configured(service), *first_request(url),
        error(DISCOVERY, f"curl_easy_perform() failed: {curl_text(COULD_NOT_CONNECT)}"),
        cloud_failed(cause), retrying(without_cache(cause))])


def expect_failure(world, cloud, level, lines, cause):
    """A run whose one discovery attempt logs these lines and fails for this cause."""
    service = world.start(world.document(cloud.discovery_url, level=level))
    assert service.wait_failed() == without_cache(cause)
    service.expect_main_log([*configured(service), *first_request(cloud.discovery_url), *lines, cloud_failed(cause),
                             retrying(without_cache(cause))])


@pytest.mark.parametrize("level", LEVELS)
@pytest.mark.parametrize("status", [300, 304, 400, 401, 403, 404, 500, 503])
def test_status_outside_the_good_ones_fails(world, cloud, status, level):
    cloud.script(cloud.discovery_path, Reply(status, cloud.discovery_body() if status != 304 else b""))
    expect_failure(world, cloud, level, discovery_status(status), status_failed(cloud.discovery_url, status))


# --- the reply

def reply_error(text):
    """The log line and the cause of a reply that cannot be used."""
    return ([error(DISCOVERY, f"Error processing JSON returned by Discovery Request: {text}")],
            f"Error processing JSON returned by Discovery Request.{text}")


def bad_replies():
    """(name, body, lines after the status, cause)"""
    missing_tag = "JSON returned by Discovery Request is missing data tag."
    wrong_type = ([error(DISCOVERY, "Discovery Request, missing data tag"), *reply_error(missing_tag)[0]],
                  reply_error(missing_tag)[1])
    nothing = ([FOUND_DATA, error(DISCOVERY, "Nothing to decrypt")], "Nothing to decrypt")
    return [
        ("empty", b"", *reply_error(NOT_AN_OBJECT)),
        ("text", b"hello", *reply_error(NOT_AN_OBJECT)),
        ("cut off", b'{"data":"AAAA', *reply_error(NOT_AN_OBJECT)),
        ("ends after colon", b'{"data":', *reply_error("Input was only whitespace")),
        ("no data", b"{}", *reply_error("data")),
        ("other name", b'{"Data":"AAAA"}', *reply_error("data")),
        ("array", b"[1]", *reply_error("data")),
        ("two data", b'{"data":"AAAA","data":"AAAA"}', *reply_error("Key conflict")),
        ("empty name", b'{"":1,"data":"AAAA"}', *reply_error("Missing key")),
        ("escaped slash", b'{"data":"AA\\/A"}', *reply_error(NOT_AN_OBJECT)),
        ("NUL", b'\0{"data":"AAAA"}', *reply_error(NOT_AN_OBJECT)),
        ("million brackets", b'{"data":' + b"[" * 1000000, *reply_error(NOT_AN_OBJECT)),
        *((f"data {value}", f'{{"data":{value}}}'.encode(), *wrong_type)
          for value in ("5", "null", "true", "{}", "[]", '["AAAA"]')),
        ("data empty", b'{"data":""}', *nothing),
        ("data of dropped escapes", b'{"data":"\\u0041\\u0042"}', *nothing),
    ]


@pytest.mark.parametrize("level", LEVELS)
@pytest.mark.parametrize("body, lines, cause", [pytest.param(*row[1:], id=row[0]) for row in bad_replies()])
def test_reply_without_usable_data_fails(world, cloud, body, lines, cause, level):
    cloud.script(cloud.discovery_path, Reply(200, body))
    expect_failure(world, cloud, level, [*discovery_status(200), *lines], cause)


def test_other_members_and_white_space_of_the_reply_do_not_matter(world, cloud):
    data = json.loads(cloud.discovery_body())["data"]
    body = f' \r\n{{ "more" : [ {{ }} , null ] ,\n\t"data" : "{data}" , "last" : -1.5e3 ,}} and so on'
    cloud.script(cloud.discovery_path, Reply(200, body))
    service = world.start_ready(cloud)
    service.expect_main_log([*configured(service), *initialised(cloud)])


# --- base64 and blocks

FAILED_BLOCK = ([error(DISCOVERY, "RSA_private_decrypt() FAILED")],
                "Decrypting Discovery data: RSA_private_decrypt() FAILED")
EMPTY_BLOCK = ([error(DISCOVERY, "AsymmetricPrivateKeyDecryption() FAILED")], "Failed to decrypt Discovery Request.")


def encoded(text):
    return json.dumps({"data": text}).encode()


def bad_ciphertexts():
    """(name, what makes the reply of device and other device, decoded size, lines after the last block, cause)"""
    start = b'{"config":'

    def flipped(device):
        cipher = bytearray(device.encrypt([start, b"{}}"]))
        cipher[300] ^= 1
        return bytes(cipher)

    return [
        ("other device", lambda device, other: data_body(other.encrypt(start)), 256, *FAILED_BLOCK),
        ("second block flipped", lambda device, other: data_body(flipped(device)), 512, *FAILED_BLOCK),
        ("short block", lambda device, other: data_body(b"x" * 100), 100, *FAILED_BLOCK),
        ("remainder", lambda device, other: data_body(device.encrypt([start]) + b"x" * 44), 300, *FAILED_BLOCK),
        ("one byte behind", lambda device, other: data_body(device.encrypt([start]) + b"x"), 257, *FAILED_BLOCK),
        ("all zero", lambda device, other: data_body(bytes(256)), 256, *FAILED_BLOCK),
        ("one base64 byte", lambda device, other: encoded("AA"), 1, *FAILED_BLOCK),
        ("two base64 bytes", lambda device, other: encoded("AAA="), 2, *FAILED_BLOCK),
        ("five letters", lambda device, other: encoded("AAAAA"), 3, *FAILED_BLOCK),
        ("URL alphabet", lambda device, other: encoded("AAAA_AAA"), 3, *FAILED_BLOCK),
        ("empty block", lambda device, other: data_body(device.encrypt([b""])), 256, *EMPTY_BLOCK),
        ("empty second block", lambda device, other: data_body(device.encrypt([start, b""])), 512, *EMPTY_BLOCK),
    ]


@pytest.mark.parametrize("level", LEVELS)
@pytest.mark.parametrize("make, size, lines, cause", [pytest.param(*row[1:], id=row[0]) for row in bad_ciphertexts()])
def test_ciphertext_that_does_not_decrypt_fails(world, cloud, device, other_device, make, size, lines, cause, level):
    cloud.script(cloud.discovery_path, Reply(200, make(device, other_device)))
    expect_failure(world, cloud, level,
                   [*discovery_status(200), FOUND_DATA, decoded(size), *decrypting(size), *lines], cause)


@pytest.mark.parametrize("text", ["====", "A", "-AAAA", " AAAA", "\nAAAA", "*"], ids=repr)
def test_data_without_a_leading_base64_byte_decrypts_to_nothing(world, cloud, text):
    cloud.script(cloud.discovery_path, Reply(200, encoded(text)))
    lines, cause = reply_error(NOT_AN_OBJECT)
    expect_failure(world, cloud, "verbose", [*discovery_status(200), FOUND_DATA, *decrypted(0), *lines], cause)


@pytest.mark.parametrize("between", ["\n", "\r\n", " ", "=", "-"], ids=repr)
def test_data_is_read_up_to_the_first_foreign_character(world, cloud, device, between):
    payload = json.dumps(cloud.payload()).encode()
    good, more = (base64.b64encode(device.encrypt([part])).decode() for part in (payload, b"garbage"))
    assert good.endswith("==")
    cloud.script(cloud.discovery_path, Reply(200, encoded(good.rstrip("=") + between + more)))
    service = world.start_ready(cloud)
    service.expect_main_log([*configured(service), *initialised(cloud)])


@pytest.mark.parametrize("sizes", [(1,), (10, 1), (LARGEST_PLAINTEXT,)], ids=str)
def test_blocks_are_joined_in_order_with_nothing_between(world, cloud, sizes):
    payload = json.dumps({**cloud.payload(), "more": "x" * 300}, separators=(",", ":")).encode()
    blocks, place = [], 0
    while place < len(payload):
        size = sizes[len(blocks) % len(sizes)]
        blocks.append(payload[place:place + size])
        place += size
    cloud.script(cloud.discovery_path, Reply(200, cloud.discovery_body(blocks)))
    service = world.start_ready(cloud)
    service.expect_main_log([*configured(service), *first_request(cloud.discovery_url),
                             *good_reply(cloud, 256 * len(blocks)), READY])
    reply = service.api.exchange('{"request":"data"}')
    assert reply == b'{"status":"ok","discovery_data":' + payload + b"}"


def test_a_block_ends_at_its_first_nul(world, cloud):
    payload = json.dumps(cloud.payload()).encode()
    blocks = [payload[:60] + b"\0garbage", payload[60:] + b"\0", ]
    cloud.script(cloud.discovery_path, Reply(200, cloud.discovery_body(blocks)))
    service = world.start_ready(cloud)
    assert service.api.request("data")["discovery_data"] == cloud.payload()


# --- the payload

def bad_payloads():
    def endpoints(text):
        return '{"config":{"endpoints":%s}}' % text

    missing = ([], URL_MISSING)
    return [
        ("text", "hello", *reply_error(NOT_AN_OBJECT)),
        ("cut off", '{"config":{"endpoints":', *reply_error(NOT_AN_OBJECT)),
        ("two configs", '{"config":1,"config":2}', *reply_error("Key conflict")),
        ("two endpoints", '{"config":{"endpoints":1,"endpoints":2}}', *reply_error("Key conflict")),
        ("empty name", '{"":1}', *reply_error("Missing key")),
        ("empty object", "{}", *missing),
        ("array", "[1]", *missing),
        ("config a number", '{"config":5}', *missing),
        ("config a text", '{"config":"endpoints"}', *missing),
        ("config empty", '{"config":{}}', *missing),
        ("config an array", '{"config":["endpoints"]}', *missing),
        ("endpoints null", endpoints("null"), *missing),
        ("endpoints an array", endpoints("[]"), *missing),
        ("endpoints empty", endpoints("{}"), *missing),
        ("URL a number", endpoints('{"veloIdConfiguration":5}'), *missing),
        ("URL an object", endpoints('{"veloIdConfiguration":{}}'), *missing),
        ("other capitals", endpoints('{"VeloIdConfiguration":"http://127.0.0.1/"}'), *missing),
        ("one level too high", '{"config":{"veloIdConfiguration":"http://127.0.0.1/"}}', *missing),
        ("URL empty", endpoints('{"veloIdConfiguration":""}'), [well_known_found("")], URL_MISSING),
    ]


@pytest.mark.parametrize("level", LEVELS)
@pytest.mark.parametrize("payload, lines, cause", [pytest.param(*row[1:], id=row[0]) for row in bad_payloads()])
def test_payload_without_the_url_fails(world, cloud, payload, lines, cause, level):
    cloud.script(cloud.discovery_path, Reply(200, cloud.discovery_body(payload)))
    expect_failure(world, cloud, level, [*discovery_status(200), FOUND_DATA, *decrypted(256), *lines], cause)


def test_payload_is_passed_on_to_clients_whole(world, cloud):
    payload = ('{ "config" : { "endpoints" : { "veloIdConfiguration" : "%s" , "a" : [ 1 , 2.50 , { } ] } } ,\n'
               '  "caf\u00e9/\u20ac" : "h\\u00e9 \\"q\\" \\n" , "n" : -1E+5 , "e" : { "x/y" : [ ] } }'
               % cloud.well_known_url)
    cloud.script(cloud.discovery_path, Reply(200, cloud.discovery_body(payload)))
    service = world.start_ready(cloud)
    since = service.log.mark()
    expected = ('{"status":"ok","discovery_data":{"config":{"endpoints":{"veloIdConfiguration":"%s",'
                '"a":[1,2.50,{}]}},"caf\u00e9\\/\u20ac":"h\\u00e9 \\"q\\" \\n","n":-1E+5,"e":{"x/y":[]}}}'
                % cloud.well_known_url)
    assert service.api.exchange('{"request":"data"}').decode() == expected
    assert len(service.log.pairs(since, only=API)) == 5, "nothing is logged about a reply that went well"


def test_no_descriptor_stays_open_after_failed_attempts(world, cloud):
    cloud.script(cloud.discovery_path, Reply(500))
    failed = world.start(world.document(cloud.discovery_url))
    failed.wait_failed()
    failed.wait_listening()
    before = len(failed.open_descriptors())
    for path in (Raw(b""), Reply(200, b"{}")):
        cloud.script(cloud.discovery_path, path)
        again = world.start(world.document(cloud.discovery_url))
        again.wait_failed()
        again.wait_listening()
        assert len(again.open_descriptors()) == before
