"""The client's own build, what it installs, and programs that are built with what is installed."""

import os
import re

import pytest

from support.client_command import ClientCommand, Outcome, run, success
from support.client_package import CLIENT, PROJECT, ClientBuild, must, warns_or_fails

EXAMPLE = PROJECT / "docs" / "examples" / "token.c"
HEADER = CLIENT / "include" / "ssoclient.h"
WARNINGS = ("-Wall", "-Wextra", "-Werror", "-pedantic")

RUNTIME = ["bin/sso-client", "LIB/libssoclient.so.1 -> libssoclient.so.1.0.0", "LIB/libssoclient.so.1.0.0",
           "share/bash-completion/completions/sso-client", "share/man/man1/sso-client.1"]
DEVELOPMENT = ["LIB/cmake/ssoclient/ssoclientConfig-release.cmake", "LIB/cmake/ssoclient/ssoclientConfig.cmake",
               "LIB/cmake/ssoclient/ssoclientConfigVersion.cmake", "LIB/libssoclient.a",
               "LIB/libssoclient.so -> libssoclient.so.1", "LIB/pkgconfig/ssoclient.pc", "include/ssoclient.h"]


@pytest.fixture(scope="module")
def build(tmp_path_factory):
    return ClientBuild(tmp_path_factory.mktemp("client-build"))


@pytest.fixture(scope="module")
def packagers_build(tmp_path_factory):
    """For /usr, where the libraries' folder may be another one."""
    return ClientBuild(tmp_path_factory.mktemp("packagers-build"), "-DCMAKE_INSTALL_PREFIX=/usr")


@pytest.fixture(scope="module")
def installed(build, tmp_path_factory):
    return build.install(tmp_path_factory.mktemp("installed"))


@pytest.fixture(scope="module", params=["installed", "moved", "below another root"])
def tree(request, tmp_path_factory):
    """The package at each kind of place."""
    folder = tmp_path_factory.mktemp("tree")
    if request.param == "below another root":
        return request.getfixturevalue("packagers_build").install_below(folder)
    build = request.getfixturevalue("build")
    if request.param == "installed":
        return build.install(folder / "place with blanks")
    return build.install(folder / "first").moved_to(folder / "second")


# --- what is installed

def names(build, *lists):
    return sorted(name.replace("LIB", build.library_folder) for names in lists for name in names)


def test_installed_files(build, installed):
    assert installed.files() == names(build, RUNTIME, DEVELOPMENT)


def test_files_below_another_root(packagers_build, tmp_path):
    assert packagers_build.install_below(tmp_path).files() == names(packagers_build, RUNTIME, DEVELOPMENT)
    assert os.listdir(tmp_path) == ["usr"]


@pytest.mark.parametrize("component, files", [("runtime", RUNTIME), ("development", DEVELOPMENT)])
def test_components(build, tmp_path, component, files):
    assert build.install(tmp_path, "--component", component).files() == names(build, files)


def test_installed_files_do_not_name_the_folders_they_come_from(build, installed):
    for path in installed.prefix.rglob("*"):
        data = path.read_bytes() if path.is_file() else b""
        for folder in (build.folder, CLIENT, installed.prefix):
            assert str(folder).encode() not in data, f"{folder} in {path}"


def test_installed_texts_are_the_sources(installed):
    for name, source in [("include/ssoclient.h", HEADER), ("share/man/man1/sso-client.1", CLIENT / "man/sso-client.1"),
                         ("share/bash-completion/completions/sso-client", CLIENT / "completion/sso-client")]:
        data = (installed.prefix / name).read_bytes()
        assert data == source.read_bytes() and data


def test_installed_command(tree, service):
    assert run([tree.prefix / "bin/sso-client", "--port", service.api.port, "ping"]) == success("ready")


# --- the installed command within a limit that a sanitizer's build could not keep

@pytest.fixture(scope="module")
def installed_command(installed):
    return ClientCommand(str(installed.prefix / "bin" / "sso-client"))


def test_command_takes_little_memory(installed_command, service):
    script = f"ulimit -v 10000; sso-client --config {service.configuration_path} certificate-id"
    assert installed_command.in_bash(script, 1) == success("device-0001")


# --- the binaries

def symbols(*arguments):
    """The global symbols that a file defines, without their versions."""
    return {line.split()[-1].partition("@")[0] for line in must("nm", "--defined-only", *arguments).splitlines()
            if len(line.split()) == 3 and line.split()[1] != "A"}


def dynamic_entries(path, kind):
    return re.findall(rf"\({kind}\).*\[(.*)\]", must("readelf", "-dW", path))


def test_shared_library_exports_what_the_header_declares(installed):
    declared = set(re.findall(r"\b(ssoclient_\w+)\(", HEADER.read_text()))
    assert len(declared) == 6
    assert symbols("-D", installed.libraries / "libssoclient.so") == declared


def test_shared_library_needs_libc_only(installed):
    library = installed.libraries / "libssoclient.so"
    assert dynamic_entries(library, "SONAME") == ["libssoclient.so.1"]
    assert dynamic_entries(library, "NEEDED") == ["libc.so.6"]
    assert dynamic_entries(library, "RUNPATH") + dynamic_entries(library, "RPATH") == []


def test_command_needs_libc_only(installed):
    command = installed.prefix / "bin/sso-client"
    assert dynamic_entries(command, "NEEDED") == ["libc.so.6"]
    assert dynamic_entries(command, "RUNPATH") + dynamic_entries(command, "RPATH") == []


def test_archive_takes_only_names_of_its_own(installed):
    defined = symbols("-g", installed.libraries / "libssoclient.a")
    assert "ssoclient_get_token" in defined
    assert [name for name in defined if not name.startswith("ssoclient_")] == []


# --- the header

@pytest.mark.parametrize("compiler, language, standard", [
    ("cc", "c", "c99"), ("cc", "c", "c11"), ("c++", "c++", "c++98"), ("c++", "c++", "c++17")])
def test_header_compiles_alone(compiler, language, standard, tmp_path):
    source = tmp_path / "source"
    source.write_text('#include "ssoclient.h"\n#include "ssoclient.h"\nint main(void);\n')
    check = [compiler, "-x", language, f"-std={standard}", *WARNINGS, "-fsyntax-only", "-I", HEADER.parent, source]
    must(*check)
    source.write_text('#include "ssoclient.h"\nenum ssoclient_status { SSOCLIENT_OTHER };\n')
    assert warns_or_fails(*check)


# --- programs

IN_CPP = r"""
#include <ssoclient.h>

#include <cstdlib>
#include <iostream>

int main(int, char** argv) {
  char* text = NULL;
  const ssoclient_status status = ssoclient_get_token(std::atoi(argv[1]), argv[2], 20000, &text);
  std::cout << (text ? text : ssoclient_status_text(status)) << '\n';
  ssoclient_free(text);
  return status;
}
"""

CONSUMER = """
cmake_minimum_required(VERSION 3.18)
project(consumer LANGUAGES C)
find_package(ssoclient 1.0 REQUIRED)
enable_language(CXX)
foreach(form ssoclient ssoclient-static)
  add_executable(c-${form} token.c)
  add_executable(c++-${form} token.cpp)
  target_link_libraries(c-${form} ssoclient::${form})
  target_link_libraries(c++-${form} ssoclient::${form})
endforeach()
"""


def expect_token(program, service, **environment):
    token = service.api.token_text("telemetry")
    assert run([program, service.api.port, "telemetry"], environment=environment) == success(token)


def compile_example(program, *options):
    must("cc", EXAMPLE, "-o", program, "-std=c11", *WARNINGS, *options)


def test_example_with_the_shared_library(tree, service, tmp_path):
    compile_example(tmp_path / "token", *tree.pkg_config("--cflags", "--libs"))
    assert dynamic_entries(tmp_path / "token", "NEEDED") == ["libssoclient.so.1", "libc.so.6"]
    expect_token(tmp_path / "token", service, LD_LIBRARY_PATH=str(tree.libraries))


def test_example_with_the_archive(tree, service, tmp_path):
    compile_example(tmp_path / "token", *tree.pkg_config("--cflags", "--libs-only-L"), "-l:libssoclient.a")
    assert dynamic_entries(tmp_path / "token", "NEEDED") == ["libc.so.6"]
    expect_token(tmp_path / "token", service)


def test_example_without_any_shared_library(installed, service, tmp_path):
    compile_example(tmp_path / "token", *installed.pkg_config("--cflags", "--libs", "--static"), "-static")
    assert dynamic_entries(tmp_path / "token", "NEEDED") == []
    expect_token(tmp_path / "token", service)


def test_programs_with_the_cmake_package(tree, service, tmp_path):
    (tmp_path / "CMakeLists.txt").write_text(CONSUMER)
    (tmp_path / "token.c").write_bytes(EXAMPLE.read_bytes())
    (tmp_path / "token.cpp").write_text(IN_CPP)
    build = tmp_path / "build"
    must("cmake", "-S", tmp_path, "-B", build, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={tree.prefix}")
    must("cmake", "--build", build)
    for language in ("c", "c++"):
        expect_token(build / f"{language}-ssoclient", service, LD_LIBRARY_PATH=str(tree.libraries))
        expect_token(build / f"{language}-ssoclient-static", service)
        assert "libssoclient.so.1" in dynamic_entries(build / f"{language}-ssoclient", "NEEDED")
        assert "libssoclient.so.1" not in dynamic_entries(build / f"{language}-ssoclient-static", "NEEDED")


def test_package_versions_agree(installed, tmp_path):
    assert installed.pkg_config("--modversion") == ["1.0.0"]
    assert run([installed.prefix / "bin/sso-client", "--version"]) == success("sso-client 1.0.0")
    (tmp_path / "CMakeLists.txt").write_text(CONSUMER.replace("ssoclient 1.0 ", "ssoclient 2.0 "))
    refused = run(["cmake", "-S", tmp_path, "-B", tmp_path / "build", "-G", "Ninja",
                   f"-DCMAKE_PREFIX_PATH={installed.prefix}"], seconds=60)
    assert refused.status == 1 and "version: 1.0.0" in refused.stderr


def test_example_tells_what_went_wrong(installed, world, tmp_path):
    program = tmp_path / "token"
    compile_example(program, *installed.pkg_config("--cflags", "--libs-only-L"), "-l:libssoclient.a")
    assert run([program, world.new_port(), "telemetry"]) == Outcome(1, "", "token: cannot connect\n")
    assert run([program, "0", "telemetry"]) == Outcome(1, "", "token: invalid argument\n")
    assert run([program]) == Outcome(2, "", "usage: token PORT SCOPE\n")
