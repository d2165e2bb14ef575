"""The memory of a running process: where remainders of a secret stand in it."""

import base64
import re
from dataclasses import dataclass

from cryptography.hazmat.primitives.serialization import load_pem_private_key

# Every remainder of FRAGMENT + STEP - 1 bytes is found, from whatever place in the secret it is.
FRAGMENT = 16
STEP = 8

_MAPPING = re.compile(r"([0-9a-f]+)-([0-9a-f]+) r(.)\S+ \S+ \S+ (\d+) *(.*)\n")
_KERNELS_OWN = {"[vvar]", "[vvar_vclock]", "[vsyscall]"}  # without a byte of the process


@dataclass(frozen=True)
class Trace:
    """A remainder: bytes of one form of a secret."""
    form: str
    place: str  # of the mapping, as the kernel names it
    address: int
    offset: int  # of its first byte in the form
    length: int

    def __str__(self):
        end = self.offset + self.length
        return f"{self.form} [{self.offset}:{end}] at {self.address:#x} in {self.place or 'anonymous memory'}"


def forms_of_key(pem):
    """What is secret of an RSA key, as name -> bytes, in each form in which a program has it: its text, its structure
    (in which all of the numbers stand, big-endian), and the numbers as words, the least significant first."""
    numbers = load_pem_private_key(pem, None).private_numbers()
    words = {name: _big_endian(value)[::-1] for name, value in {
        "d": numbers.d, "p": numbers.p, "q": numbers.q, "d mod p-1": numbers.dmp1, "d mod q-1": numbers.dmq1,
        "1/q mod p": numbers.iqmp}.items()}
    lines = pem.strip().splitlines(keepends=True)
    structure = base64.b64decode(b"".join(lines[1:-1]))
    start = structure.index(_big_endian(numbers.d))  # before it there is the public key only
    line, column = divmod(start // 3 * 4, len(lines[1]) - 1)
    text = b"".join(lines[1 + line:-1])[column:]
    return {"text": text, "structure": structure[start:], **words}


def traces(pid, forms):
    """Every remainder of a secret in the process's memory."""
    fragments = [(name, form, offset) for name, form in forms.items()
                 for offset in range(0, len(form) - FRAGMENT + 1, STEP)]
    found = set()
    for place, start, data in mappings(pid):
        for name, form, offset in fragments:
            at = data.find(form[offset:offset + FRAGMENT])
            while at >= 0:
                found.add(_whole_trace(name, form, offset, place, start, data, at))
                at = data.find(form[offset:offset + FRAGMENT], at + 1)
    return sorted(found, key=lambda trace: trace.address)


def mappings(pid):
    """(name, address, bytes) of every mapping in which the process may have left something: not of the parts of files
    that it can only read, which are the files' own."""
    with open(f"/proc/{pid}/maps") as maps, open(f"/proc/{pid}/mem", "rb") as memory:
        for start, end, writable, inode, name in map(re.Match.groups, filter(None, map(_MAPPING.fullmatch, maps))):
            if name not in _KERNELS_OWN and (writable == "w" or inode == "0"):
                start, end = int(start, 16), int(end, 16)
                memory.seek(start)
                data = memory.read(end - start)
                assert len(data) == end - start, f"only {len(data)} bytes of {name} {start:#x}-{end:#x}"
                yield name, start, data


def _whole_trace(name, form, offset, place, start, data, at):
    """The whole remainder around a fragment."""
    before = after = 0
    while before < min(offset, at) and data[at - before - 1] == form[offset - before - 1]:
        before += 1
    while after < min(len(form) - offset, len(data) - at) and data[at + after] == form[offset + after]:
        after += 1
    return Trace(name, place, start + at - before, offset - before, before + after)


def _big_endian(number):
    return number.to_bytes((number.bit_length() + 7) // 8, "big")
