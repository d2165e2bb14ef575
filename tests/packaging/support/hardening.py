"""What makes a program or shared library hard to attack, read from the built file itself."""

import re
import subprocess

_PAGE = 4096
_ENDBR64 = bytes.fromhex("f30f1efa")


def missing(path):
    """The protections that the file lacks, as a list of their names."""
    text = _output("readelf", "--wide", "--file-header", "--segments", "--dynamic", "--dyn-syms", path)
    holds = {
        "loaded at any address": re.search(r"Type: +DYN ", text) and (
            ".so" in path.name or "INTERP" in text and re.search(r"FLAGS_1.* PIE", text)),
        "relocations read-only": "GNU_RELRO" in text,
        "bound at the start": re.search(r"FLAGS.*\bBIND_NOW\b", text),
        "stack not executable": re.search(r"GNU_STACK .* RW +0", text),
        "stack protector": re.search(r"UND __stack_chk_fail\b", text),
        "checked calls": re.search(r"UND __\w+_chk\b", text),
        "no search path of its own": not re.search(r"\((RPATH|RUNPATH)\)", text),
        "code not relocated": "TEXTREL" not in text,
    }
    if "X86-64" in text:  # clang has neither for ARM
        holds["large frames touched page by page"] = _frames_are_probed(path)
        holds["targets of jumps marked"] = _targets_are_marked(path, text)
    return [name for name, value in holds.items() if not value]


def _frames_are_probed(path):
    """No frame grows by more than a page at once, and what a page was taken for touches it next."""
    growths = re.findall(r"\bsub +\$0x([0-9a-f]{1,8}),%rsp(?:\n.*\t(.*))?",
                         _output("objdump", "--disassemble", "--no-show-raw-insn", path))
    assert growths, f"{path} has no frames"
    return all(int(size, 16) < _PAGE or int(size, 16) == _PAGE and re.match(r"(orq|movq) +\$0x0,\(%rsp\)", following)
               for size, following in growths)


def _targets_are_marked(path, text):
    """Each function whose address stands in the data, or that is exported, begins with the mark. The note that the
    whole file is so marked (IBT, SHSTK) is not to be had: the start-up code of Debian 12's C library has none."""
    content = path.read_bytes()
    section = re.search(r" \.text +PROGBITS +(\w+) (\w+) (\w+)", _output("readelf", "--wide", "--sections", path))
    start, offset, size = (int(number, 16) for number in section.groups())
    addresses = re.findall(r"R_X86_64_RELATIVE +(\w+)", _output("readelf", "--wide", "--relocs", path))
    addresses += re.findall(r"^ +\d+: (\w+) +\d+ FUNC +\w+ +\w+ +\d+ ", text, re.M)
    functions = [address - start + offset for address in (int(address, 16) for address in addresses)
                 if start <= address < start + size]
    return functions and all(content[at:at + len(_ENDBR64)] == _ENDBR64 for at in functions)


def _output(*command):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          timeout=120).stdout
