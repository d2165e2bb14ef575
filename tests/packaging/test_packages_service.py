"""The installed service in a fresh root, with the real local cloud: a token through the installed client and the
installed library, before and after an upgrade."""

import subprocess

import pytest

from support.assertion import decode, signature_holds
from support.compiler import compiler, installed_library
from support.installed_service import CONFIGURATION, STATE, USER, InstalledService

EXAMPLE = "/usr/share/doc/libssoclient-dev/examples/token.c"


@pytest.fixture
def service(installed):
    result = InstalledService(installed)
    yield result
    result.close()


def make_ready(service, device, cloud):
    service.take_identity(device)
    service.configure(cloud.discovery_url)
    service.start()


@pytest.fixture(scope="module")
def ready(installed_once, device, cloud):
    """The service in its root, ready for the tests that leave it so."""
    result = InstalledService(installed_once)
    try:
        make_ready(result, device, cloud)
        yield result
    finally:
        result.close()


def assert_good_token(token, cloud):
    header, claims = decode(token)
    assert signature_holds(token, cloud.public_keys()[header["kid"]])
    assert (claims["iss"], claims["client_id"], claims["scope"]) == (cloud.issuer, "device-0001", "telemetry")


def test_sample_configuration_lacks_only_the_identity(service):
    """The service accepts it, and goes on asking for the certificate."""
    service.configure()
    service.launch()
    service.wait_output("Couldn't open key/certificate file /etc/sso-discovery-service/device.crt")
    service.stop()


def test_client_gets_a_token(ready, cloud):
    assert_good_token(ready.ask("token", "telemetry").stdout.strip(), cloud)
    assert ready.ask("certificate-id").stdout == "device-0001\n"


def test_service_runs_as_its_user_and_keeps_its_cache_to_itself(ready):
    state = ready.root.path(STATE)
    files = [path.name for path in state.iterdir()]
    assert len(files) == 1
    assert ready.root.run("stat", "--format", "%U:%G %a", f"{STATE}/{files[0]}").stdout == f"{USER}:{USER} 600\n"
    owners = ready.root.run("sh", "-c", "stat --format %U:%G $(dirname $(grep -l '^Name:.sso-discovery-s' "
                                        "/proc/[0-9]*/status))").stdout
    assert owners == f"{USER}:{USER}\n"


@pytest.mark.parametrize("libraries", [["--libs"], ["--libs-only-L"]], ids=["shared", "static"])
def test_example_program_built_with_the_development_package_gets_a_token(ready, cloud, libraries, tmp_path):
    program = tmp_path / "token"
    static = ["-l:libssoclient.a"] if libraries == ["--libs-only-L"] else []
    subprocess.run([*compiler(ready.root.architecture), ready.root.path(EXAMPLE), "-o", program,
                    *installed_library(ready.root, "--cflags", *libraries), *static], check=True, timeout=60)
    needed = subprocess.run(["readelf", "--dynamic", program], check=True, text=True, stdout=subprocess.PIPE).stdout
    assert ("[libssoclient.so.1]" in needed) == (not static)
    inside = ready.root.take(program)
    ready.root.path(inside).chmod(0o755)
    assert_good_token(ready.root.run(inside, ready.port, "telemetry").stdout.strip(), cloud)


def test_upgrade_keeps_configuration_and_identity_and_gives_tokens(service, device, cloud, packages, tmp_path):
    make_ready(service, device, cloud)
    root = service.root

    def kept():
        return (root.path(CONFIGURATION).read_bytes(), root.run("getent", "passwd", USER).stdout,
                root.run("ls", "-ln", "--time-style=full-iso", "/etc/sso-discovery-service").stdout)
    before = kept()
    packages.with_version("1.0.0+test1", tmp_path / "newer").install(root)
    assert root.run("dpkg-query", "--show", "--showformat", "${Version}", "sso-discovery-service").stdout == (
        "1.0.0+test1")
    assert kept() == before
    service.stop()
    service.start()
    assert_good_token(service.ask("token", "telemetry").stdout.strip(), cloud)
    service.stop()
