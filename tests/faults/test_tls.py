"""TLS with the cloud, for each of the three requests: what the service trusts, and what it does not. Its own mount
namespace has one more authority in the system's bundle."""

import ssl
import warnings
from functools import partial

import pytest
from cryptography import x509

from authority import SYSTEM_BUNDLE, Authority, self_signed_context
from cells import NOTHING, UNCHANGED, Cell, matrix
from cloud_requests import (ASKING_TOKEN, DISCOVERING, LOOKING_UP, TOKEN_GIVEN, DiscoveryAttempt, TokenAttempt,
                            backup_cell, check_time_limit, discovery_cell, failed_discovery, failed_token, path_of,
                            token_cell)
from namespace import seeing
from support.http_server import HttpServer, Raw, as_bytes
from support.ports import LOOPBACK
from support.texts import READY as CLOUD_FOUND, TOKEN_FOUND


class SecuredServer(HttpServer):
    """The cloud's answers over TLS."""

    def __init__(self, answer, context):
        self.converse_with = partial(self.secure, context)
        super().__init__(answer)

    def _converse(self, connection):
        self.converse_with(connection)

    def secure(self, context, connection):
        try:
            with context.wrap_socket(connection, server_side=True) as secured:
                super()._converse(secured)
        except ssl.SSLError:
            pass  # the client does not want this server; the cell says so

    def hold(self, _connection):
        self._closing.wait()


class Secured:
    """One request goes over TLS. Until the fault begins, and when it is over, all is well with that."""

    def __init__(self, world, cloud, request, fault):
        folder = world.new_folder(f"tls-{request}")
        self.authority = Authority()
        self.bundle = folder / "bundle.crt"
        self.folder = folder
        self.cloud, self.path = cloud, path_of(cloud, request)
        self._good = self.authority.context(folder)
        self._fault = fault
        self.server = world.closing(SecuredServer(cloud.answer, self._good))
        url = getattr(cloud, request)
        setattr(cloud, request, url.replace(cloud.url, f"https://{LOOPBACK}:{self.server.port}"))
        self.options = {"wrapper": seeing({SYSTEM_BUNDLE: self.bundle})}
        self.end()

    def begin(self):
        self._fault(self)

    def end(self):
        self.bundle.write_bytes(SYSTEM_BUNDLE.read_bytes() + self.authority.pem)
        self.use(self._good)
        self.cloud.unscript()

    def use(self, context):
        self.converse(partial(self.server.secure, context))

    def converse(self, with_connection):
        self.server.converse_with = with_connection


def shows(**certificate):
    """The server has another certificate from the trusted authority."""
    return lambda secured: secured.use(secured.authority.context(secured.folder, **certificate))


def old_protocol(secured):
    context = secured.authority.context(secured.folder)
    context.set_ciphers("DEFAULT:@SECLEVEL=0")
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)  # that it is out of date is the point
        context.minimum_version = context.maximum_version = ssl.TLSVersion.TLSv1_1
    secured.use(context)


def ends_without_farewell(secured):
    """Nothing but the end of the connection says that the answer is whole, and TLS does not confirm the end."""
    body = as_bytes(secured.cloud.usual(secured.path).body)
    secured.cloud.script(secured.path, Raw(b"HTTP/1.1 200 OK\r\n\r\n" + body))


FAULTS = [
    ("certificate signed by itself", "not_trusted", lambda secured: secured.use(self_signed_context(secured.folder))),
    ("certificate of an unknown authority", "not_trusted",
     lambda secured: secured.use(Authority("Somebody").context(secured.folder))),
    ("certificate has expired", "not_trusted", shows(days=(-30, -1))),
    ("certificate is not valid yet", "not_trusted", shows(days=(1, 30))),
    ("certificate of another host", "not_trusted", shows(place=x509.DNSName("elsewhere.invalid"))),
    ("bundle of authorities is empty", "bad_authorities", lambda secured: secured.bundle.write_bytes(b"")),
    ("server knows no later protocol than TLS 1.1", "tls_failed", old_protocol),
    ("server does not speak TLS", "tls_failed",
     lambda secured: secured.converse(lambda connection: connection.sendall(b"HTTP/1.1 400 Bad Request\r\n\r\n"))),
    ("closes inside the handshake", "tls_failed",
     lambda secured: secured.converse(lambda connection: connection.recv(1))),
]
WAITS = [("handshake is not answered", "timed_out", lambda secured: secured.converse(secured.server.hold))]
TRUSTED = [("certificate of a trusted authority", lambda secured: None),
           ("closes without TLS's farewell", ends_without_farewell)]


def trusted(line, files):
    """The answers are taken."""
    return [Cell(fault, (line,), TOKEN_GIVEN, files=files, script=partial(Secured, fault=begin))
            for fault, begin in TRUSTED]


def of_discovery(faults, make=discovery_cell):
    return [make(fault, *failed_discovery(outcome), partial(Secured, fault=begin)) for fault, outcome, begin in faults]


def of_token(faults):
    return [token_cell(fault, failed_token(outcome), partial(Secured, fault=begin)) for fault, outcome, begin in faults]


@pytest.fixture(scope="module")
def begun(module_world):
    """The attempts by request, all at once: they take half a minute."""
    token, = of_token(WAITS)
    return {DISCOVERING: DiscoveryAttempt(module_world, *of_discovery(WAITS)),
            **{request: TokenAttempt(module_world, token, request) for request in (LOOKING_UP, ASKING_TOKEN)}}


@pytest.mark.slow
@pytest.mark.xdist_group("time limit of handshakes")
@matrix("Discovery request: TLS", *of_discovery(WAITS))
def test_discovery_ends_at_the_time_limit(begun, cell, judge):
    check_time_limit(begun[DISCOVERING], judge)


@pytest.mark.slow
@pytest.mark.xdist_group("time limit of handshakes")
@matrix("OpenID configuration: TLS", *of_token(WAITS))
def test_lookup_ends_at_the_time_limit(begun, cell, judge):
    check_time_limit(begun[LOOKING_UP], judge)


@pytest.mark.slow
@pytest.mark.xdist_group("time limit of handshakes")
@matrix("Token request: TLS", *of_token(WAITS))
def test_token_request_ends_at_the_time_limit(begun, cell, judge):
    check_time_limit(begun[ASKING_TOKEN], judge)


@matrix("Discovery request: TLS", *trusted(CLOUD_FOUND, NOTHING), *of_discovery(FAULTS))
def test_discovery(world, cell, judge):
    DiscoveryAttempt(world, cell).check(judge)


@matrix("Discovery request with a backup file: TLS", *of_discovery(FAULTS[:1], backup_cell))
def test_discovery_with_a_backup_file(world, cell, judge):
    DiscoveryAttempt(world, cell, with_backup=True).check(judge)


@matrix("OpenID configuration: TLS", *trusted(TOKEN_FOUND, UNCHANGED), *of_token(FAULTS))
def test_lookup(world, cell, judge):
    TokenAttempt(world, cell, LOOKING_UP).check(judge)


@matrix("Token request: TLS", *trusted(TOKEN_FOUND, UNCHANGED), *of_token(FAULTS))
def test_token(world, cell, judge):
    TokenAttempt(world, cell, ASKING_TOKEN).check(judge)
