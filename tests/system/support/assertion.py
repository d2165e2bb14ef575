"""Reading and judging a signed token: three base64url parts without padding."""

import base64
import json
import re
import time

from cryptography.exceptions import InvalidSignature
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import padding

_COMPACT = re.compile(r"[A-Za-z0-9_-]+\.[A-Za-z0-9_-]+\.[A-Za-z0-9_-]+")
_UUID = re.compile(r"[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")


def decode_part(part):
    return base64.urlsafe_b64decode(part + "=" * (-len(part) % 4))


def decode(token):
    """The header and the payload, read without judging the signature."""
    assert _COMPACT.fullmatch(token), f"not a compact token: {token}"
    header, payload, _ = token.split(".")
    return json.loads(decode_part(header)), json.loads(decode_part(payload))


def signature_holds(token, public_key):
    signed, _, signature = token.rpartition(".")
    try:
        public_key.verify(decode_part(signature), signed.encode(), padding.PKCS1v15(), hashes.SHA256())
    except InvalidSignature:
        return False
    return True


def faults_of_assertion(token, public_key, client_id, audience, now=None):
    """Everything that is wrong with a client assertion, as a list of sentences; empty when it is right. The time is
    the device's, when that is another one than here."""
    header, claims = decode(token)
    now = time.time() if now is None else now
    tests = [
        (signature_holds(token, public_key), "the signature does not hold"),
        (header == {"alg": "RS256", "typ": "JWT"}, f"header {header}"),
        (set(claims) == {"sub", "jti", "nbf", "exp", "iat", "iss", "aud"}, f"claims {sorted(claims)}"),
        (claims.get("sub") == client_id and claims.get("iss") == client_id, f"not from {client_id}: {claims}"),
        (claims.get("aud") == audience, f"not meant for {audience}: {claims}"),
        (_UUID.fullmatch(str(claims.get("jti"))), f"jti {claims.get('jti')}"),
    ]
    times = [claims.get(name) for name in ("nbf", "iat", "exp")]
    if all(type(value) is int for value in times):
        tests.append((times[0] == times[1] and times[2] - times[1] == 300, f"lifetime {claims}"))
        tests.append((now - 60 < times[1] <= now, f"issued at {times[1]}, now is {now}"))
    else:
        tests.append((False, f"times are not whole seconds: {claims}"))
    return [text for holds, text in tests if not holds]
