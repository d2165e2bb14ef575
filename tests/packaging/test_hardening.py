"""How a release is hardened (cmake/Hardening.cmake). SSO_SERVICE names the executable of a release build, which has
sso-client beside it and the library in client/. The programs of the packages are judged in test_packages.py."""

import os
import subprocess
from pathlib import Path

import pytest

from support.hardening import missing

ALL = ("-O2 -fPIE -pie -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-clash-protection "
       "-fcf-protection -Wl,-z,relro,-z,now").split()

PROGRAM = """
#include <stdio.h>
#include <string.h>

#ifdef RELOCATED
__asm__(".pushsection .text; .quad main; .popsection");
#endif

static int length(const char *text) { return (int)strlen(text); }
int (*const volatile functions[])(const char *) = {length};

int main(int argc, char **argv) {
  char large[3 * 4096];
  char small[16];
  memset(large, argc, sizeof large);
  strcpy(small, argv[0]);
  return printf("%s %d %d", small, large[argc], functions[0](small));
}
"""


@pytest.mark.parametrize("name", ["sso-discovery-service", "sso-client", "client/libssoclient.so"])
def test_nothing_is_missing(name):
    path = Path(os.environ["SSO_SERVICE"]).parent / name
    assert missing(path.resolve()) == []


@pytest.mark.parametrize("flags, lacking", [
    ([], []),
    (["-fno-pie", "-no-pie"], ["loaded at any address", "targets of jumps marked"]),
    (["-Wl,-z,norelro"], ["relocations read-only"]),
    (["-Wl,-z,lazy"], ["bound at the start"]),
    (["-Wl,-z,execstack"], ["stack not executable"]),
    (["-fno-stack-protector"], ["stack protector"]),
    (["-U_FORTIFY_SOURCE"], ["checked calls"]),
    (["-Wl,-rpath,/nowhere"], ["no search path of its own"]),
    (["-DRELOCATED", "-Wl,-z,notext"], ["code not relocated"]),
    (["-fno-stack-clash-protection"], ["large frames touched page by page"]),
    (["-fcf-protection=none"], ["targets of jumps marked"]),
])
def test_what_is_missing_is_seen(flags, lacking, tmp_path):
    program = tmp_path / "program"
    (tmp_path / "program.c").write_text(PROGRAM)
    subprocess.run(["gcc", *ALL, *flags, "-w", tmp_path / "program.c", "-o", program], check=True, timeout=60,
                   stderr=subprocess.DEVNULL)
    assert missing(program) == lacking
