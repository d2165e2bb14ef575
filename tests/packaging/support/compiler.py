"""The machine's compilers for programs that run in a root."""

import os
import subprocess
from pathlib import Path

_PROJECT = Path(__file__).resolve().parents[3]
MULTIARCH = {"amd64": "x86_64-linux-gnu", "armhf": "arm-linux-gnueabihf"}


def compiler(architecture):
    """The command that compiles and links C for the architecture."""
    if architecture == "amd64":
        return ["gcc"]
    sysroot = subprocess.run([_PROJECT / "scripts/armhf-root"], check=True, text=True, stdout=subprocess.PIPE,
                             timeout=300).stdout.strip()
    return ["clang", f"--target={MULTIARCH[architecture]}", f"--sysroot={sysroot}", "-fuse-ld=lld"]


def installed_library(root, *options):
    """What pkg-config says about the client library that is installed in the root."""
    folder = root.path(f"/usr/lib/{MULTIARCH[root.architecture]}/pkgconfig")
    return subprocess.run(["pkg-config", *options, "ssoclient"], check=True, text=True, stdout=subprocess.PIPE,
                          env={**os.environ, "PKG_CONFIG_LIBDIR": str(folder)}, timeout=60).stdout.split()
