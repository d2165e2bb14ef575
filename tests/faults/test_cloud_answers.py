"""Answers to each of the three requests that arrive whole and are of no use, or are odd and of use all the same."""

import gzip
import re
from dataclasses import replace
from functools import partial

from cells import RETRYING, UNCHANGED, WRITTEN, Cell, matrix
from cloud_requests import (ASKING_TOKEN, LOOKING_UP, TOKEN_GIVEN, DiscoveryAttempt, TokenAttempt, backup_cell,
                            discovery_cell, failed_discovery, failed_token, scripted, token_cell)
from support.fake_cloud import data_body
from support.http_server import Raw, Reply
from support.log import debug, error, info
from support.texts import (ACCESS_TOKEN, CLIENT, DISCOVERY, NO_EXPIRY, NOT_VALID, READY as CLOUD_FOUND, TOKEN_FOUND,
                           cloud_failed, expires)

HEAD = b"HTTP/1.1 200 OK\r\n"
STATUSES = [300, 304, 400, 401, 403, 404, 429, 500, 502, 503, 999]
LEVELS = 100_000
ANY = re.compile(".*")
NOT_AN_OBJECT = "Input is not a valid object"
NOTHING_LEFT = "Input was only whitespace"  # the text of a document ends at its first NUL


def statuses():
    """The good body under each of these."""
    def answer(status):
        return scripted(lambda body: Reply(status, b"" if status == 304 else body))

    return [(f"status {status}", status, answer(status)) for status in STATUSES]


def replying(body):
    return scripted(Reply(200, body))


def beginning(start):
    """The good body behind something else."""
    return scripted(lambda body: Reply(200, start + body))


def ending(end):
    return scripted(lambda body: Reply(200, body + end))


def with_member(member):
    """The good document with one more member, which comes first."""
    return scripted(lambda body: Reply(200, b"{" + member + b"," + body[1:]))


NO_OBJECT = [  # (fault, how it is brought about): nothing that the service could take for an object
    ("204", scripted(Reply(204))),
    ("empty body", replying(b"")),
    ("closes inside the headers", scripted(Raw(HEAD + b"Content-Le"))),  # libcurl is content with the status line
    ("length is too short", scripted(lambda body: Raw(HEAD + b"Content-Length: 20\r\n\r\n" + body))),
    ("not JSON", replying(b"<html>It works!</html>")),
    ("JSON text", replying(b'"data"')),
    ("gzip that nobody asked for", scripted(lambda body: Reply(200, gzip.compress(body),
                                                               (("Content-Encoding", "gzip"),)))),
    ("NUL before the document", beginning(b"\0")),
    ("NUL in a text", with_member(b'"text":"\0"')),
    ("byte order mark", beginning(b"\xef\xbb\xbf")),
    ("invalid UTF-8 instead of JSON", replying(b"\xff\xfe\x80\xc0" * 10)),
    ("100,000 open brackets", replying(b'{"data":' + b"[" * LEVELS)),
]

USABLE = [  # (fault, how it is brought about): odd, and the answer is taken all the same
    ("another content type", scripted(lambda body: Reply(200, body, (("Content-Type", "text/html"),)))),
    ("status 299", scripted(lambda body: Reply(299, body))),
    ("100 Continue first", scripted(lambda body: Raw(b"HTTP/1.1 100 Continue\r\n\r\n" + HEAD + b"\r\n" + body))),
    ("no length", scripted(lambda body: Raw(HEAD + b"\r\n" + body))),
    ("length beyond 64 bits",
     scripted(lambda body: Raw(HEAD + b"Content-Length: 99999999999999999999\r\n\r\n" + body))),
    ("bytes behind the document", ending(b"\0\xff and so on")),
    ("another member of 100,000 levels", with_member(b'"deep":' + b"[" * LEVELS + b"]" * LEVELS)),
    ("another member of 1 MiB", with_member(b'"long":"' + b"x" * 2**20 + b'"')),
    ("another member with invalid UTF-8", with_member(b'"text":"\xff\xfe\x80\xc0"')),
]


# --- discovery

def unusable(reason):
    return ([error(DISCOVERY, f"Error processing JSON returned by Discovery Request: {reason}")],
            f"Error processing JSON returned by Discovery Request.{reason}")


def missing_tag():
    lines, cause = unusable("JSON returned by Discovery Request is missing data tag.")
    return [error(DISCOVERY, "Discovery Request, missing data tag"), *lines], cause


def undecryptable():
    return ([error(DISCOVERY, "RSA_private_decrypt() FAILED")],
            "Decrypting Discovery data: RSA_private_decrypt() FAILED")


def decrypting_to(payload):
    """A reply for the right key."""
    return partial(Decrypted, payload=payload)


class Decrypted:
    def __init__(self, _world, cloud, _request, payload):
        self.options = {}
        self.begin = lambda: cloud.script(cloud.discovery_path, Reply(200, cloud.discovery_body(payload)))
        self.end = cloud.unscript


URL_MISSING = [], "config.endpoints.veloIdConfiguration not found"

DISCOVERY_ANSWERS = [
    *((fault, unusable(NOT_AN_OBJECT), script) for fault, script in NO_OBJECT),
    ("NUL instead of a value", unusable(NOTHING_LEFT), replying(b'{"data":\0}')),
    ("JSON array", unusable("data"), replying(b'["data"]')),
    ("100,000 levels", unusable("data"), replying(b"[" * LEVELS + b"]" * LEVELS)),
    ("no data", unusable("data"), replying(b"{}")),
    ("two data", unusable("Key conflict"), replying(b'{"data":"AAAA","data":"AAAA"}')),
    *((f"data is {value}", missing_tag(), replying(b'{"data":%s}' % value.encode()))
      for value in ("5", "null", "true", "{}", '["AAAA"]')),
    ("data of 100,000 levels", missing_tag(), replying(b'{"data":%s%s}' % (b"[" * LEVELS, b"]" * LEVELS))),
    ("data is empty", ([error(DISCOVERY, "Nothing to decrypt")], "Nothing to decrypt"), replying(b'{"data":""}')),
    ("data is not base64", unusable(NOT_AN_OBJECT), replying(b'{"data":"*"}')),
    ("data is invalid UTF-8", unusable(NOT_AN_OBJECT), replying(b'{"data":"\xff\xfe"}')),
    ("data is for another key", undecryptable(), replying(data_body(b"x" * 256))),
    ("data of 1 MiB for another key", undecryptable(), replying(data_body(b"x" * (3 * 2**18)))),
    ("payload is not JSON", unusable(NOT_AN_OBJECT), decrypting_to("hello")),
    ("payload without the URL", URL_MISSING, decrypting_to("{}")),
    ("payload whose URL is a number", URL_MISSING,
     decrypting_to('{"config":{"endpoints":{"veloIdConfiguration":5}}}')),
    ("payload whose URL is empty", URL_MISSING, decrypting_to('{"config":{"endpoints":{"veloIdConfiguration":""}}}')),
    *((fault, failed_discovery(status), script) for fault, status, script in statuses()),
]

WITH_BACKUP = ["status 503", "not JSON", "no data", "data is for another key", "payload is not JSON"]
USED = Cell("", (CLOUD_FOUND,), TOKEN_GIVEN)


@matrix("Discovery request: the answer",
        *(discovery_cell(fault, *told, script) for fault, told, script in DISCOVERY_ANSWERS),
        *(replace(USED, fault=fault, script=script) for fault, script in USABLE))
def test_discovery(world, cell, judge):
    DiscoveryAttempt(world, cell).check(judge)


@matrix("Discovery request with a backup file: the answer",
        *(backup_cell(fault, *told, script) for fault, told, script in DISCOVERY_ANSWERS if fault in WITH_BACKUP),
        Cell("payload without the URL", (
            info(DISCOVERY, "Cloud config data was successfully stored in {backup}"),  # kept before the URL is missed
            cloud_failed(URL_MISSING[1], caching=True),
            error(DISCOVERY, f"Couldn't retrieve configuration from the backup file: {URL_MISSING[1]}")),
            r'{"status":"error","message":"Cloud discovery failed. '
            'Couldn\'t retrieve cloud configure from the cloud and the backup file"}', RETRYING, WRITTEN,
            script=decrypting_to("{}")))
def test_discovery_with_a_backup_file(world, cell, judge):
    DiscoveryAttempt(world, cell, with_backup=True).check(judge)


# --- OpenID configuration

ENDPOINT_MISSING = [error(CLIENT, "Missing token_endpoint tag")]

LOOKUP_ANSWERS = [
    *((fault, [NOT_VALID], script) for fault, script in NO_OBJECT),
    ("NUL instead of a value", [NOT_VALID], replying(b'{"token_endpoint":\0}')),
    ("JSON array", [NOT_VALID], replying(b'["token_endpoint"]')),
    ("100,000 levels", [NOT_VALID], replying(b"[" * LEVELS + b"]" * LEVELS)),
    ("no token_endpoint", [NOT_VALID], replying(b"{}")),
    ("two token_endpoint", [NOT_VALID], replying(b'{"token_endpoint":"a","token_endpoint":"b"}')),
    *((f"token_endpoint is {value}", ENDPOINT_MISSING, replying(b'{"token_endpoint":%s}' % value.encode()))
      for value in ("5", "null", "true", "{}", '["http://127.0.0.1/"]')),
    ("token_endpoint of 100,000 levels", ENDPOINT_MISSING,
     replying(b'{"token_endpoint":%s%s}' % (b"[" * LEVELS, b"]" * LEVELS))),
    ("token_endpoint is empty", [debug(CLIENT, "found token_endpoint: ")], replying(b'{"token_endpoint":""}')),
    *((fault, failed_token(status), script) for fault, status, script in statuses()),
]


@matrix("OpenID configuration: the answer",
        *(token_cell(fault, lines, script) for fault, lines, script in LOOKUP_ANSWERS),
        *(replace(USED, fault=fault, log=(debug(CLIENT, "found token_endpoint: {endpoint}"), TOKEN_FOUND),
                  files=UNCHANGED, script=script) for fault, script in USABLE))
def test_lookup(world, cell, judge):
    attempt = TokenAttempt(world, cell, LOOKING_UP)
    attempt.check(judge, endpoint=attempt.cloud.token_endpoint)


# --- token request

NO_TOKEN = error(ACCESS_TOKEN, "No access_token found in {body}")


def unreadable(reason):
    return [error(ACCESS_TOKEN, f"Error processing toke json: {{body}} Error:{reason}"), NOT_VALID]


def lasting(text):
    return replying(b'{"access_token":"secret","expires_in":%s}' % text.encode())


def named(text):
    return replying(b'{"access_token":%s,"expires_in":3600}' % text.encode())


TOKEN_ANSWERS = [
    *((fault, unreadable(NOT_AN_OBJECT), script) for fault, script in NO_OBJECT),
    ("NUL instead of a value", unreadable(NOTHING_LEFT), replying(b'{"access_token":\0}')),
    ("JSON array", [NO_TOKEN, NO_EXPIRY, NOT_VALID], replying(b'["access_token"]')),
    ("100,000 levels", [NO_TOKEN, NO_EXPIRY, NOT_VALID], replying(b"[" * LEVELS + b"]" * LEVELS)),
    ("no access_token", [NO_TOKEN, expires(3600), NOT_VALID], replying(b'{"expires_in":3600}')),
    ("two access_token", unreadable("Key conflict"), replying(b'{"access_token":"a","access_token":"b"}')),
    *((f"access_token is {value}", [NO_TOKEN, expires(3600), NOT_VALID], named(value))
      for value in ("5", "null", "true", "{}", '["secret"]')),
    ("access_token of 100,000 levels", [NO_TOKEN, expires(3600), NOT_VALID], named("[" * LEVELS + "]" * LEVELS)),
    ("access_token is empty", [TOKEN_FOUND, expires(3600), NOT_VALID], named('""')),
    ("no expires_in", [TOKEN_FOUND, NO_EXPIRY, NOT_VALID], replying(b'{"access_token":"secret"}')),
    *((f"expires_in is {value}", [TOKEN_FOUND, NO_EXPIRY, NOT_VALID], lasting(value))
      for value in ('"3600"', "null", "true", "{}", "[3600]")),
    *((f"expires_in is {number}", [TOKEN_FOUND, expires(number), NOT_VALID], lasting(str(number)))
      for number in (19, 0, -3600)),
    ("expires_in is beyond 32 bits", [TOKEN_FOUND, *unreadable("stoi")], lasting("2147483648")),
    *((fault, failed_token(status), script) for fault, status, script in statuses()),
]


@matrix("Token request: the answer",
        *(token_cell(fault, lines, script) for fault, lines, script in TOKEN_ANSWERS),
        *(replace(USED, fault=fault, log=(TOKEN_FOUND, expires(3600)), files=UNCHANGED, script=script)
          for fault, script in USABLE))
def test_token(world, cell, judge):
    TokenAttempt(world, cell, ASKING_TOKEN).check(judge, body=ANY)
