"""The signed assertion of each token request. The scripted cloud judges every one; here they are looked at closely."""

import time

import pytest

from support.assertion import decode, faults_of_assertion
from support.fake_cloud import TOKEN_PATH, WELL_KNOWN_PATH
from support.http_server import Reply


@pytest.fixture
def assertions(world, cloud):
    """Those of twelve token requests in quick succession."""
    service = world.start_ready(cloud)
    for number in range(12):
        service.api.token_text(f"scope-{number}")
    return cloud.assertions()


def test_every_assertion_is_right(assertions, device, cloud):
    for assertion in assertions:
        assert faults_of_assertion(assertion, device.public_key, "device-0001", cloud.token_endpoint) == []


def test_header_and_claims_are_exactly_these(assertions, cloud):
    header, claims = decode(assertions[0])
    assert header == {"alg": "RS256", "typ": "JWT"}
    assert claims == {"iss": "device-0001", "sub": "device-0001", "aud": cloud.token_endpoint, "jti": claims["jti"],
                      "iat": claims["iat"], "nbf": claims["iat"], "exp": claims["iat"] + 300}


def test_issue_time_is_the_time_of_the_request(assertions):
    issued = [decode(assertion)[1]["iat"] for assertion in assertions]
    assert issued == sorted(issued)
    assert time.time() - 10 < issued[0] <= issued[-1] <= time.time()


def test_assertions_of_one_second_differ_in_identifier_and_signature_only(assertions):
    by_second = {}
    for assertion in assertions:
        by_second.setdefault(decode(assertion)[1]["iat"], []).append(assertion)
    first, second, *_ = max(by_second.values(), key=len)
    one, other = decode(first)[1], decode(second)[1]
    assert one.pop("jti") != other.pop("jti")
    assert one == other
    assert first.split(".")[0] == second.split(".")[0]
    assert first.split(".")[2] != second.split(".")[2]


def test_identifiers_are_random_in_every_free_digit(assertions):
    identifiers = [decode(assertion)[1]["jti"] for assertion in assertions]
    assert len(set(identifiers)) == len(identifiers)
    for place in set(range(36)) - {8, 13, 14, 18, 23}:
        # Twelve equal digits at a place come about once in a million million runs; at the variant's place of four
        # possible digits once in four million.
        assert len({identifier[place] for identifier in identifiers}) > 1, (place, identifiers)


def test_parts_are_without_padding(assertions):
    for assertion in assertions:
        assert "=" not in assertion and "+" not in assertion and "/" not in assertion


def test_audience_follows_the_endpoint_that_was_found(world, cloud):
    cloud.token_endpoint = cloud.url + TOKEN_PATH + "?tenant=5"
    cloud.script(TOKEN_PATH + "?tenant=5", Reply(200, {"access_token": "text", "expires_in": 3600}))
    service = world.start_ready(cloud)
    assert service.api.token_text() == "text"
    request, = cloud.requests(TOKEN_PATH + "?tenant=5")
    assertion = request.body.decode().rpartition("&client_assertion=")[2]
    assert decode(assertion)[1]["aud"] == cloud.url + TOKEN_PATH + "?tenant=5"
    assert len(cloud.requests(WELL_KNOWN_PATH)) == 1


@pytest.mark.parametrize("character", ["a", "/", "\x01"])
@pytest.mark.parametrize("length", [16000, 130000, 2000000])
def test_endpoint_of_any_length_is_survived(world, cloud, length, character):
    cloud.token_endpoint = cloud.url + TOKEN_PATH + "?" + length * character
    cloud.script(WELL_KNOWN_PATH, Reply(200, '{"token_endpoint":"' + cloud.token_endpoint + '"}'))
    service = world.start_ready(cloud)
    for _ in range(2):
        assert service.api.request("token", scope="device")["status"] in ("ok", "error")
    assert service.api.request("certificate_id") == {"status": "ok", "certificate_id": "device-0001"}
