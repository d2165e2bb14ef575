"""A scripted cloud on 127.0.0.1: discovery endpoint, OpenID configuration and token endpoint in one server."""

import base64
import json
import re
import threading
import time

from .assertion import decode, faults_of_assertion
from .http_server import Gate, HttpServer, Reply
from .ports import LOOPBACK

WELL_KNOWN_PATH = "/.well-known/openid-configuration"
TOKEN_PATH = "/token"

_FORM = re.compile(
    r"grant_type=client_credentials&scope=(.*)"
    r"&client_assertion_type=urn:ietf:params:oauth:client-assertion-type:jwt-bearer&client_assertion=([^&]*)", re.S)


class FakeCloud:
    """Answers everything rightly unless a path is scripted, and judges each assertion that it is sent."""

    def __init__(self, device):
        self.expires_in = 3600
        self.now = time.time  # the device's clock
        self.faults = []  # what was wrong with the assertions
        self._identifiers = set()
        self._scripts = {}
        self._tokens = 0
        self._lock = threading.Lock()
        self._server = HttpServer(self.answer)
        self.refuse, self.listen = self._server.refuse, self._server.listen
        self.url = f"http://{LOOPBACK}:{self._server.port}"
        self.know(device)
        self.discovery_url = self.url + "/devices/"
        self.well_known_url = self.url + WELL_KNOWN_PATH
        self.token_endpoint = self.url + TOKEN_PATH
        self.well_known_in_payload = self.well_known_url

    def know(self, device):
        """From now on this is the device: the cloud encrypts to it and judges by it."""
        self.device = device
        self.discovery_path = "/devices/" + device.id

    def close(self):
        self._server.close()

    def payload(self):
        return {"config": {"endpoints": {"veloIdConfiguration": self.well_known_in_payload}, "region": "eu"}}

    def discovery_body(self, payload=None):
        """The body of a discovery reply; the payload is a document, a text, or a list of plaintext blocks."""
        payload = self.payload() if payload is None else payload
        if isinstance(payload, (dict, str)):
            payload = (payload if isinstance(payload, str) else json.dumps(payload, separators=(",", ":"))).encode()
        return data_body(self.device.encrypt(payload))

    def script(self, path, *replies):
        """Each request to the path takes the next reply; the last one stays."""
        with self._lock:
            self._scripts[path] = list(replies)

    def unscript(self):
        with self._lock:
            self._scripts.clear()

    def hold(self, path, reply=None):
        """Hold the next request to the path until the gate that is returned is released; later ones pass."""
        gate = Gate(reply or self.usual(path))
        self.script(path, gate, None)
        return gate

    def requests(self, path=None):
        return [request for request in self._server.requests if path is None or request.target == path]

    def assertions(self):
        return [_FORM.fullmatch(request.body.decode("latin-1")).group(2) for request in self.requests(TOKEN_PATH)]

    def usual(self, path):
        if path == self.discovery_path:
            return Reply(200, self.discovery_body())
        if path == WELL_KNOWN_PATH:
            return Reply(200, {"issuer": self.url, "token_endpoint": self.token_endpoint})
        if path == TOKEN_PATH:
            return self._token_reply()
        return Reply(404)

    def answer(self, request):
        if request.target == TOKEN_PATH:
            self._judge(request)
        with self._lock:
            replies = self._scripts.get(request.target)
            reply = replies and (replies.pop(0) if len(replies) > 1 else replies[0])
        return reply or self.usual(request.target)

    def _token_reply(self):
        with self._lock:
            self._tokens += 1
            return Reply(200, {"access_token": f"access/{self._tokens}", "token_type": "Bearer",
                               "expires_in": self.expires_in})

    def _judge(self, request):
        form = _FORM.fullmatch(request.body.decode("latin-1"))
        if request.method != "POST" or not form:
            self.faults.append(f"not a token request: {request.raw!r}")
            return
        assertion = form.group(2)
        try:
            self.faults += faults_of_assertion(assertion, self.device.public_key, self.device.id, self.token_endpoint,
                                               self.now())
            identifier = decode(assertion)[1].get("jti")
        except (AssertionError, ValueError) as error:
            self.faults.append(str(error))
            return
        if identifier in self._identifiers:
            self.faults.append(f"jti {identifier} was used before")
        self._identifiers.add(identifier)


def data_body(ciphertext):
    return json.dumps({"data": base64.b64encode(ciphertext).decode()}, separators=(",", ":")).encode()
