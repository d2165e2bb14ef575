"""Certificates for a cloud on the loopback interface, from an authority that is made for the run."""

import datetime
import ipaddress
import ssl
from pathlib import Path

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import NameOID

from support.device import private_pem
from support.ports import LOOPBACK

SYSTEM_BUNDLE = Path("/etc/ssl/certs/ca-certificates.crt")  # what libcurl trusts
HERE = x509.IPAddress(ipaddress.ip_address(LOOPBACK))
VALID = (-1, 30)  # days from now


def named(text):
    return x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, text)])


class Authority:
    def __init__(self, name="Authority of this run"):
        self._name = named(name)
        self._key = new_key()
        self.pem = signed(certificate(self._name, self._key, self._name).add_extension(
            x509.BasicConstraints(ca=True, path_length=None), critical=True), self._key)

    def context(self, folder, place=HERE, days=VALID):
        """A server's TLS with a certificate for this place."""
        key = new_key()
        return tls(folder, signed(at(place, certificate(named("Cloud"), key, self._name, days)), self._key), key)


def self_signed_context(folder):
    key = new_key()
    return tls(folder, signed(at(HERE, certificate(named("Cloud"), key, named("Cloud"))), key), key)


def new_key():
    return ec.generate_private_key(ec.SECP256R1())


def certificate(subject, key, issuer, days=VALID):
    now = datetime.datetime.utcnow()
    first, last = (now + datetime.timedelta(days=count) for count in days)
    return (x509.CertificateBuilder().subject_name(subject).issuer_name(issuer).public_key(key.public_key())
            .serial_number(x509.random_serial_number()).not_valid_before(first).not_valid_after(last))


def at(place, builder):
    return builder.add_extension(x509.SubjectAlternativeName([place]), critical=False)


def signed(builder, key):
    return builder.sign(key, hashes.SHA256()).public_bytes(serialization.Encoding.PEM)


def tls(folder, pem, key):
    path = folder / "server.pem"
    path.write_bytes(pem + private_pem(key))
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(path)
    return context
