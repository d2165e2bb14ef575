"""Which JWT library CMake chooses. Debian does not package jwt-cpp, so stand-ins of its name are installed in
throw-away folders: they hand on to compat/jwt-cpp/jwt.h and libjwt."""

import re

import pytest

from support.client_package import PROJECT, must
from support.client_command import run
from support.device import Device
from support.document import Document
from support.world import World

STAND_IN = f'#include "{PROJECT}/compat/jwt-cpp/jwt.h"\n'
PACKAGE = """
add_library(jwt-cpp::jwt-cpp INTERFACE IMPORTED)
set_target_properties(jwt-cpp::jwt-cpp PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES ${CMAKE_CURRENT_LIST_DIR}/../../../include INTERFACE_LINK_LIBRARIES jwt)
"""
VERSION = """
set(PACKAGE_VERSION 9.8.7)
set(PACKAGE_VERSION_COMPATIBLE TRUE)
"""
ASSERTION = "CMakeFiles/sso_core.dir/src/ClientAssertion.cpp.o"


@pytest.fixture(scope="module")
def header(tmp_path_factory):
    """A prefix with the header alone."""
    prefix = tmp_path_factory.mktemp("header")
    (prefix / "include/jwt-cpp").mkdir(parents=True)
    (prefix / "include/jwt-cpp/jwt.h").write_text(STAND_IN)
    return prefix


@pytest.fixture(scope="module")
def package(tmp_path_factory):
    """A prefix with a CMake package."""
    prefix = tmp_path_factory.mktemp("package")
    for name, text in [("include/jwt-cpp/jwt.h", STAND_IN), ("lib/cmake/jwt-cpp/jwt-cpp-config.cmake", PACKAGE),
                       ("lib/cmake/jwt-cpp/jwt-cpp-config-version.cmake", VERSION)]:
        (prefix / name).parent.mkdir(parents=True, exist_ok=True)
        (prefix / name).write_text(text)
    return prefix


def configure(build, *options):
    """The line about the JWT library."""
    printed = must("cmake", "-S", PROJECT, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                   "-DSSO_WARNINGS_AS_ERRORS=ON", *options)
    return re.search(r"^-- (JWT: .*)$", printed, re.M).group(1)


def headers_of_assertion(build):
    return must("ninja", "-C", build, "-t", "deps", ASSERTION)


def test_without_jwt_cpp_the_stand_in_is_taken(tmp_path):
    assert re.fullmatch(r"JWT: compat/jwt-cpp/jwt\.h on libjwt \(\S+/libjwt\.so\)", configure(tmp_path))


def test_header_is_taken(header, tmp_path):
    line = configure(tmp_path, f"-DCMAKE_PREFIX_PATH={header}")
    assert line == f"JWT: installed jwt-cpp (header in {header}/include)"
    must("ninja", "-C", tmp_path, ASSERTION)
    assert f"{header}/include/jwt-cpp/jwt.h" in headers_of_assertion(tmp_path)


def test_package_is_taken_before_a_header_and_the_service_gets_tokens(header, package, tmp_path):
    build = tmp_path / "build"
    line = configure(build, f"-DCMAKE_PREFIX_PATH={header};{package}")
    assert line == "JWT: installed jwt-cpp 9.8.7 (CMake package)"
    must("ninja", "-C", build, "sso-discovery-service")
    assert f"{package}/include/jwt-cpp/jwt.h" in headers_of_assertion(build).replace("lib/cmake/jwt-cpp/../../../", "")
    assert str(header) not in headers_of_assertion(build)
    world = World(build / "sso-discovery-service", Device(tmp_path / "device"), tmp_path)
    try:
        assert world.start_ready(world.new_cloud()).api.token_text() == "access/1"
    finally:
        world.close()


def test_neither_is_an_error(tmp_path):
    nothing = tmp_path / "nothing"
    nothing.mkdir()
    modes = [f"-DCMAKE_FIND_ROOT_PATH_MODE_{kind}=ONLY" for kind in ("PACKAGE", "INCLUDE", "LIBRARY")]
    refused = run(["cmake", "-S", PROJECT, "-B", tmp_path / "build", "-G", "Ninja",
                   f"-DCMAKE_FIND_ROOT_PATH={nothing}", *modes])
    assert refused.status == 1
    assert "JWT: neither jwt-cpp nor libjwt (libjwt-dev) is installed" in refused.stderr


def calls(text):
    return set(re.findall(r"\bset_\w+|\bsign\b|\brs256\b|\bjwt::create\b", text))


def test_document_lists_every_call():
    listed = calls(Document("docs/integration.md").block("With an installed jwt-cpp", "cpp"))
    assert listed == calls((PROJECT / "src/ClientAssertion.cpp").read_text()) and len(listed) == 11
