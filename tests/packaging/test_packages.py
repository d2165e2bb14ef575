"""The packages as files: their fields and contents, how the programs in them are built, and whether a second build
gives the same bytes."""

import filecmp
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from support.compiler import MULTIARCH
from support.hardening import missing
from support.packages import NAMES, Packages

PROJECT = Path(__file__).resolve().parents[2]
# Debian 12 has OpenSSL 3, Debian 11 has 1.1.
OPENSSL = {"amd64": "libssl3", "armhf": "libssl1.1"}
PROGRAMS = [("sso-discovery-service", "usr/sbin/sso-discovery-service"), ("sso-client", "usr/bin/sso-client"),
            ("libssoclient1", "usr/lib/*/libssoclient.so.1.0.0")]


def output(*command, **options):
    result = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=600,
                            **options)
    assert result.returncode == 0, f"{command} ended with {result.returncode}:\n{result.stdout}"
    return result.stdout


@pytest.fixture(scope="module")
def trees(packages, tmp_path_factory):
    """The unpacked files of each package."""
    return {name: packages.unpacked(name, tmp_path_factory.mktemp("unpacked") / name) for name in NAMES}


def test_version_is_the_project_s(packages):
    version = re.search(r"^project\(.* VERSION ([0-9.]+)", (PROJECT / "CMakeLists.txt").read_text(), re.M).group(1)
    assert {packages.field(name, "Version") for name in NAMES} == {version}
    assert {packages.field(name, "Architecture") for name in NAMES} == {packages.architecture}


@pytest.mark.parametrize("changed", ["CMakeLists.txt", "client/CMakeLists.txt", "packaging/debian/changelog"])
def test_another_version_in_one_place_is_refused(changed, tmp_path):
    for name in ("scripts/common.sh", "scripts/package", "CMakeLists.txt", "client/CMakeLists.txt",
                 "packaging/debian/changelog"):
        (tmp_path / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(PROJECT / name, tmp_path / name)
    path = tmp_path / changed
    path.write_text(re.sub(r"(VERSION |\()\d+\.\d+\.\d+(?= LANG|\) )", r"\g<1>9.8.7", path.read_text()))
    result = subprocess.run([tmp_path / "scripts/package", "amd64"], text=True, stderr=subprocess.PIPE, timeout=60)
    assert result.returncode == 1
    assert re.match(r"package: packaging/debian/changelog says .*9\.8\.7|package: .* says 9\.8\.7, ", result.stderr)


def test_service_depends_on_its_libraries_and_not_on_systemd(packages):
    assert packages.depends("sso-discovery-service") == {
        "adduser", "ca-certificates", "libc6", "libcurl4", "libjwt0", OPENSSL[packages.architecture]}
    assert packages.field("sso-discovery-service", "Recommends") == ""


def test_client_depends_on_the_c_library_alone(packages):
    assert packages.depends("sso-client") == {"libc6"}
    assert packages.depends("libssoclient1") == {"libc6"}
    assert packages.field("libssoclient-dev", "Depends") == "libssoclient1 (= %s)" % packages.field(
        "libssoclient1", "Version")


def test_files(packages, trees):
    libraries = f"usr/lib/{MULTIARCH[packages.architecture]}"
    documents = {name: {f"usr/share/doc/{name}/{file}" for file in ("changelog.gz", "copyright")} for name in NAMES}
    expected = {
        "sso-discovery-service": {
            "etc/sso-discovery-service/config.json", "lib/systemd/system/sso-discovery-service.service",
            "usr/libexec/sso-discovery-service/restart-pause", "usr/sbin/sso-discovery-service",
            "usr/share/doc/sso-discovery-service/README.Debian",
            "usr/share/doc/sso-discovery-service/examples/credentials.conf",
            "usr/share/doc/sso-discovery-service/examples/sso-discovery-service.nft",
            "usr/share/doc/sso-discovery-service/examples/sso-discovery-service",
            "usr/share/man/man5/sso-discovery-service.json.5.gz",
            "usr/share/man/man8/sso-discovery-service.8.gz"},
        "sso-client": {"usr/bin/sso-client", "usr/share/bash-completion/completions/sso-client",
                       "usr/share/man/man1/sso-client.1.gz"},
        "libssoclient1": {f"{libraries}/libssoclient.so.1", f"{libraries}/libssoclient.so.1.0.0"},
        "libssoclient-dev": {
            "usr/include/ssoclient.h", "usr/share/doc/libssoclient-dev/examples/token.c",
            *(f"{libraries}/{name}" for name in (
                "libssoclient.a", "libssoclient.so", "pkgconfig/ssoclient.pc", "cmake/ssoclient/ssoclientConfig.cmake",
                "cmake/ssoclient/ssoclientConfig-release.cmake", "cmake/ssoclient/ssoclientConfigVersion.cmake"))},
    }
    for name, tree in trees.items():
        files = {str(path.relative_to(tree)) for path in tree.rglob("*") if path.is_symlink() or not path.is_dir()}
        assert files == expected[name] | documents[name]


def test_configuration_is_the_only_configuration_file(packages):
    assert {packages.field(name, "Conffiles") for name in NAMES} == {""}
    conffiles = {name: output("dpkg-deb", "--info", packages.files[name], "conffiles") for name in NAMES
                 if "conffiles" in output("dpkg-deb", "--info", packages.files[name])}
    assert conffiles == {"sso-discovery-service": "/etc/sso-discovery-service/config.json\n"}


@pytest.mark.parametrize("package, program", PROGRAMS)
def test_program_is_hardened(trees, package, program):
    path, = trees[package].glob(program)
    assert missing(path) == []


@pytest.mark.parametrize("package, program", PROGRAMS)
def test_program_is_stripped(trees, package, program):
    path, = trees[package].glob(program)
    sections = output("readelf", "--wide", "--section-headers", path)
    assert ".dynsym" in sections
    assert ".symtab" not in sections and ".debug" not in sections


def test_service_has_350_kib_at_most(trees):
    assert (trees["sso-discovery-service"] / "usr/sbin/sso-discovery-service").stat().st_size <= 350 * 1024


def test_nothing_names_the_build_machine(trees):
    """Neither the project's folder nor the one where roots are kept."""
    names = [str(PROJECT).encode(), b"sso-discovery-service/armhf-root"]
    for tree in trees.values():
        for path in tree.rglob("*"):
            if path.is_file():
                content = path.read_bytes()
                assert [name for name in names if name in content] == [], path


def test_lintian_has_no_error_and_no_warning(packages):
    output("lintian", "--allow-root", "--fail-on", "error,warning", *packages.files.values())


def test_second_build_in_another_folder_is_the_same_byte_for_byte(packages, tmp_path):
    """From the sources that the first one was made of, with another umask, time zone and language."""
    output("sh", "-c", 'umask 077 && exec scripts/package --output "$1" "$2"', "sh", tmp_path / "second",
           packages.architecture, cwd=packages.folder / "source",
           env={**os.environ, "TZ": "Asia/Tokyo", "LC_ALL": "C"})
    second = Packages(tmp_path / "second" / packages.architecture)
    for name, file in packages.files.items():
        assert filecmp.cmp(file, second.files[name], shallow=False), f"{file.name} differs"
