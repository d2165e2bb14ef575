"""Requests and replies of the local API, byte for byte."""

import pytest

from support.exchanges import ID_REPLY, ID_REQUEST, ID_SENT, RESET_CONFIRMED
from support.log import LEVELS, error
from support.texts import API, request_received, token_sent

NOT_AN_OBJECT = "Input is not a valid object"
NOT_SPECIFIED = "request not specified"
NO_SCOPE = "unspecified token scope"


def refusal(message):
    return f'{{"status":"error","message":"{message}"}}'


# --- the four requests

def expect_exchange(service, request, reply, *lines):
    since = service.log.mark()
    assert service.api.exchange(request) == reply
    service.expect_log([*request_received(request.decode()), *lines], since)


def test_certificate_id(service_at_level):
    expect_exchange(service_at_level, ID_REQUEST, ID_REPLY, ID_SENT)


def test_token(service_at_level):
    service_at_level.api.token_text("device")
    reply = b'{"status":"ok","token":"access\\/1"}'
    expect_exchange(service_at_level, b'{"request":"token","scope":"device"}', reply, token_sent(reply.decode()))


def test_data_is_answered_without_a_line_of_its_own(service_at_level):
    since = service_at_level.log.mark()
    assert service_at_level.api.request("data")["status"] == "ok"
    service_at_level.expect_log(request_received('{"request": "data"}'), since)


def test_data_is_the_discovery_data_as_a_nested_object(world, cloud):
    assert world.start_ready(cloud).api.exchange('{"request":"data"}').decode() == (
        '{"status":"ok","discovery_data":{"config":{"endpoints":{"veloIdConfiguration":"%s"},"region":"eu"}}}'
        % cloud.well_known_url)


@pytest.mark.parametrize("level", LEVELS)
def test_reset(world, cloud, level):
    service = world.start_ready(cloud, level)
    since = service.log.mark()
    assert service.api.exchange('{"request":"reset"}') == b'{"status":"ok"}'
    service.expect_log([*request_received('{"request":"reset"}'), RESET_CONFIRMED], since, only=API)


# --- requests that are refused

REFUSED_REQUESTS = [
    ("{}", NOT_SPECIFIED), ("[1]", NOT_SPECIFIED), ("[]", NOT_SPECIFIED), ('["request"]', NOT_SPECIFIED),
    ('[{"request":"reset"}]', NOT_SPECIFIED),
    ('{"request":5}', NOT_SPECIFIED), ('{"request":null}', NOT_SPECIFIED), ('{"request":true}', NOT_SPECIFIED),
    ('{"request":["token"]}', NOT_SPECIFIED), ('{"request":{"request":"token"}}', NOT_SPECIFIED),
    ('{"Request":"token"}', NOT_SPECIFIED), ('{"requests":"token","scope":"x"}', NOT_SPECIFIED),
    ('{"scope":"device"}', NOT_SPECIFIED),
    ('{"request":"token"}', NO_SCOPE), ('{"request":"token","scope":5}', NO_SCOPE),
    ('{"request":"token","scope":null}', NO_SCOPE), ('{"request":"token","scope":["a"]}', NO_SCOPE),
    ('{"request":"token","Scope":"a"}', NO_SCOPE),
    ('{"request":"discovery_data"}', "unsupported request: discovery_data"),
    ('{"request":"Token","scope":"x"}', "unsupported request: Token"),
    ('{"request":"TOKEN","scope":"x"}', "unsupported request: TOKEN"),
    ('{"request":"token ","scope":"x"}', "unsupported request: token "),
    ('{"request":""}', "unsupported request: "), ('{"request":"certificate"}', "unsupported request: certificate"),
    ('{"request":"Reset"}', "unsupported request: Reset"), ('{"request":"Data"}', "unsupported request: Data"),
    ('{"request":"a/b"}', "unsupported request: a\\/b"),
    ('{"request":"a\\"b\\\\c"}', 'unsupported request: a\\"b\\\\c'),
    ('{"request":"a\\b\\f\\n\\r\\tb"}', "unsupported request: a\\b\\f\\n\\r\\tb"),
    ('{"request":"a\tb"}', "unsupported request: a\\tb"), ('{"request":"a\x01b"}', "unsupported request: a\x01b"),
    ('{"request":"x\\u0041y"}', "unsupported request: xy"),
    ('{"request":"caf\u00e9 \u20ac"}', "unsupported request: caf\u00e9 \u20ac"),
    ('{"request":"%s%n%100d"}', "unsupported request: %s%n%100d"),
]


@pytest.mark.parametrize("request_text, message", REFUSED_REQUESTS, ids=[repr(row[0]) for row in REFUSED_REQUESTS])
def test_request_that_cannot_be_served_is_refused_by_name(service, request_text, message):
    since = service.log.mark()
    assert service.api.exchange(request_text).decode() == refusal(message)
    service.expect_log(request_received(request_text), since)


# --- requests that are no documents

BAD_DOCUMENTS = [
    ("hello", NOT_AN_OBJECT), ("", NOT_AN_OBJECT), ("   ", NOT_AN_OBJECT), ("{", NOT_AN_OBJECT), ("[", NOT_AN_OBJECT),
    ("}", NOT_AN_OBJECT), ("null", NOT_AN_OBJECT), ("5", NOT_AN_OBJECT), ('"request"', NOT_AN_OBJECT),
    ('{"request":"reset"', NOT_AN_OBJECT), ('{"request":"reset', NOT_AN_OBJECT), ('{"request"}', NOT_AN_OBJECT),
    ('{"request" "reset"}', NOT_AN_OBJECT), ('{"a" 1}', NOT_AN_OBJECT), ("{a:1}", NOT_AN_OBJECT),
    ("{5:1}", NOT_AN_OBJECT), ('{"request":}', NOT_AN_OBJECT), ('{"request":,"a":1}', NOT_AN_OBJECT),
    ('{"request":reset}', NOT_AN_OBJECT), ("{'request':'reset'}", NOT_AN_OBJECT),
    ('{,"request":"reset"}', NOT_AN_OBJECT),
    ('{"request":"reset",,}', NOT_AN_OBJECT), ('{"request":"reset", }', NOT_AN_OBJECT),
    ('{"request":"reset";}', NOT_AN_OBJECT), ('{"request":"reset"]', NOT_AN_OBJECT), ("[1}", NOT_AN_OBJECT),
    ('{"request":"a\\/b"}', NOT_AN_OBJECT), ('{"request":"\\x"}', NOT_AN_OBJECT),
    ('{"request":"\\u12g4"}', NOT_AN_OBJECT), ('{"request":"reset","a":[1,]}', NOT_AN_OBJECT),
    ('{"request":"reset","a":{"b":1,}}', NOT_AN_OBJECT), ('{"a":01}', NOT_AN_OBJECT), ('{"a":+1}', NOT_AN_OBJECT),
    ('{"a":1.}', NOT_AN_OBJECT), ('{"a":.5}', NOT_AN_OBJECT), ('{"a":1e}', NOT_AN_OBJECT), ('{"a":-}', NOT_AN_OBJECT),
    ('{"a":tru}', NOT_AN_OBJECT), ('{"a":truex}', NOT_AN_OBJECT), ('{"a":nul}', NOT_AN_OBJECT),
    ('{"a":True}', NOT_AN_OBJECT), ('{"a":1 2}', NOT_AN_OBJECT), ('{"a":1,', NOT_AN_OBJECT), ("[1,", NOT_AN_OBJECT),
    ("[1 2]", NOT_AN_OBJECT), ("\ufeff{}", NOT_AN_OBJECT),
    ('{"request":', "Input was only whitespace"), ('{"request": \n\t', "Input was only whitespace"),
    ('{"a":1, ', "Input was only whitespace"), ("[1, ", "Input was only whitespace"),
    ('{"request":"reset","request":"reset"}', "Key conflict"), ('{"a":1,"b":2,"a":3}', "Key conflict"),
    ('{"request":"reset","re\\u0041quest":1}', "Key conflict"), ('{"":1}', "Missing key"),
    ('{"\\u0041":1}', "Missing key"),
]


@pytest.mark.parametrize("request_text, message", BAD_DOCUMENTS, ids=[repr(row[0]) for row in BAD_DOCUMENTS])
def test_request_that_is_no_document_gets_the_readers_text(service, request_text, message):
    since = service.log.mark()
    assert service.api.exchange(request_text).decode() == refusal(message)
    service.expect_log([*request_received(request_text), error(API, f"Invalid request format: {message}")], since)


def test_bad_request_is_an_error_at_every_level(service_at_level):
    expect_exchange(service_at_level, b"hello", refusal(NOT_AN_OBJECT).encode(),
                    error(API, f"Invalid request format: {NOT_AN_OBJECT}"))


# --- unusual documents that are served

@pytest.mark.parametrize("request_text", [
    ' \r\n\t{ "request" : "certificate_id" } ', '{"request":"certificate_id",}', '{"request":"certificate_id"} garbage',
    '{"request":"certificate_id"}}', '{"request":"certificate_id"}{"request":"reset"}',
    '{"a":[1 2],"b":{"c":1 2},"request":"certificate_id"}', '{"request":"cert\\u0041ificate_id"}',
    '{"re\\u0041quest":"certificate_id"}', '{"request":"certificate_id","scope":5,"token":null}',
    '{"scope":"\x01\x7f","request":"certificate_id"}', '\v\f{"request":"certificate_id"}',
    '{"a":-0.5e+10,"b":[[],{},"",true,false,null],"request":"certificate_id"}',
], ids=repr)
def test_unusual_document_is_served(service, request_text):
    assert service.api.exchange(request_text) == b'{"status":"ok","certificate_id":"device-0001"}'


def test_bytes_that_are_not_utf_8_come_back_as_they_went(service):
    name = bytes(byte for byte in range(1, 256) if byte not in b'"\\/\b\f\n\r\t')
    assert service.api.exchange(b'{"request":"%s"}' % name) == (
        b'{"status":"error","message":"unsupported request: %s"}' % name)


def test_requests_leave_nothing_behind(service):
    for _ in range(3):
        assert service.api.exchange('{"request":"token"}').decode() == refusal(NO_SCOPE)
        assert service.api.exchange('{"scope":"device"}').decode() == refusal(NOT_SPECIFIED)
        assert service.api.exchange('{"request":"token","scope":"device"}') == b'{"status":"ok","token":"access\\/1"}'
