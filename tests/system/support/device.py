"""Device identities: keys and certificates, good ones and ones with one thing wrong."""

import base64
import datetime
from pathlib import Path

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, padding, rsa
from cryptography.x509.oid import NameOID

BLOCK_SIZE = 256
LARGEST_PLAINTEXT = BLOCK_SIZE - 42  # what OAEP with SHA-1 leaves of a block

_OAEP = padding.OAEP(mgf=padding.MGF1(hashes.SHA1()), algorithm=hashes.SHA1(), label=None)

_RSA_KEY_ALGORITHM = bytes.fromhex("06092a864886f70d010101")
_UNKNOWN_KEY_ALGORITHM = bytes.fromhex("06092a864886f70d01017f")


def new_rsa_key():
    return rsa.generate_private_key(public_exponent=65537, key_size=8 * BLOCK_SIZE)


def private_pem(key, password=None):
    encryption = serialization.BestAvailableEncryption(password) if password else serialization.NoEncryption()
    return key.private_bytes(serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8, encryption)


def ec_private_pem():
    return private_pem(ec.generate_private_key(ec.SECP256R1()))


def certificate_pem(key, *subject):
    """A self-signed certificate; `subject` is a list of (attribute, value) pairs in the order of the name."""
    name = x509.Name([x509.NameAttribute(attribute, value) for attribute, value in subject])
    now = datetime.datetime.utcnow()
    builder = (x509.CertificateBuilder().subject_name(name).issuer_name(name).public_key(key.public_key())
               .serial_number(x509.random_serial_number())
               .not_valid_before(now - datetime.timedelta(days=1)).not_valid_after(now + datetime.timedelta(days=30)))
    return builder.sign(key, hashes.SHA256()).public_bytes(serialization.Encoding.PEM)


def with_unknown_key_algorithm(pem):
    """The same certificate, still readable, whose public key is of a kind that nobody knows."""
    der = x509.load_pem_x509_certificate(pem).public_bytes(serialization.Encoding.DER)
    assert der.count(_RSA_KEY_ALGORITHM) == 1
    return _pem("CERTIFICATE", der.replace(_RSA_KEY_ALGORITHM, _UNKNOWN_KEY_ALGORITHM))


def _pem(label, der):
    body = base64.encodebytes(der).replace(b"\n", b"")
    lines = [body[i:i + 64] for i in range(0, len(body), 64)]
    return b"\n".join([b"-----BEGIN %s-----" % label.encode(), *lines, b"-----END %s-----" % label.encode(), b""])


class Device:
    """One device: its key and certificate as PEM text and as files, and encryption to it."""

    def __init__(self, folder, key=None, subject=((NameOID.COMMON_NAME, "device-0001"),), device_id="device-0001"):
        self.key = key or new_rsa_key()
        self.id = device_id
        self.key_pem = private_pem(self.key)
        self.certificate_pem = certificate_pem(self.key, *subject)
        folder = Path(folder)
        folder.mkdir(parents=True, exist_ok=True)
        self.key_path = folder / "device.key"
        self.certificate_path = folder / "device.crt"
        self.key_path.write_bytes(self.key_pem)
        self.certificate_path.write_bytes(self.certificate_pem)

    @property
    def public_key(self):
        return self.key.public_key()

    def encrypt(self, plaintext):
        """Cut the text into blocks and encrypt each; a list is taken as the blocks' plaintexts."""
        if isinstance(plaintext, bytes):
            plaintext = [plaintext[i:i + LARGEST_PLAINTEXT] for i in range(0, len(plaintext), LARGEST_PLAINTEXT)]
        return b"".join(self.public_key.encrypt(block, _OAEP) for block in plaintext)

    def decrypt(self, ciphertext):
        blocks = [ciphertext[i:i + BLOCK_SIZE] for i in range(0, len(ciphertext), BLOCK_SIZE)]
        return b"".join(self.key.decrypt(block, _OAEP) for block in blocks)
