"""docs/integration.md: the files that it names are there, and its commands do what it says. Needs root. SSO_SERVICE
names the service's executable, with sso-client beside it. Key rotation is in tests/system/test_key_rotation.py, who may
ask in test_nftables.py, packages in test_packages_*.py."""

import datetime
import hashlib
import ipaddress
import os
import re
import shutil
import ssl
import subprocess
import tempfile
import threading
from http.server import BaseHTTPRequestHandler, HTTPServer
from pathlib import Path

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.x509.oid import NameOID

from support.cache import cache_folder
from support.client_command import ClientCommand, failure, run, success
from support.client_package import PROJECT, must
from support.configuration import file_provider
from support.device import Device, new_rsa_key, private_pem
from support.document import Document
from support.network import Etc, Network
from support.node_cloud import MadeDevice, NodeCloud
from support.world import World

DOCUMENT = Document("docs/integration.md")
DOCUMENTS = ["README.md", "CONTRIBUTING.md", "cloud/README.md", *sorted(
    str(path.relative_to(PROJECT)) for path in (PROJECT / "docs").glob("*.md"))]
LIBRARIES = ["libc6-dev", "libstdc++-12-dev", "libcurl4-openssl-dev", "libssl-dev", "libjwt-dev"]


@pytest.fixture(scope="module")
def executable():
    path = os.environ.get("SSO_SERVICE")
    if not path:
        pytest.fail("SSO_SERVICE is not set: it has to name the sso-discovery-service executable", pytrace=False)
    return os.path.abspath(path)


@pytest.fixture
def world(executable, tmp_path):
    result = World(executable, Device(tmp_path / "device"), tmp_path)
    yield result
    result.close()


def rows(heading):
    """The tables of a section: the cells of each row, without code marks."""
    lines = [line for line in DOCUMENT.section(heading).splitlines() if line.startswith("| ")]
    return [[cell.strip().replace("`", "") for cell in line.strip("|").split("|")] for line in lines]


# --- what is named is there

@pytest.mark.parametrize("name", DOCUMENTS)
def test_links_lead_somewhere(name):
    document = Document(name)
    broken = []
    for file, anchor in document.links():
        target = (document.path.parent / file).resolve() if file else document.path
        if not target.exists() or (anchor and anchor not in Document(target.relative_to(PROJECT)).anchors()):
            broken.append(f"{file}#{anchor}")
    assert broken == []


def test_scripts_are_there():
    named = set(re.findall(r"\bscripts/[a-z-]+", DOCUMENT.text))
    assert "scripts/package" in named
    assert [name for name in sorted(named) if not os.access(PROJECT / name, os.X_OK)] == []


def test_packages_are_those_that_are_made():
    made = re.findall(r"^Package: (\S+)$", (PROJECT / "packaging/debian/control").read_text(), re.M)
    assert sorted(row[0] for row in rows("Install") if len(row) == 2 and row[0] != "package") == sorted(made)


def test_drop_in_fits_the_packet_filters_unit(tmp_path):
    drop_in = DOCUMENT.block("Restrict who may ask", "ini").splitlines()
    name = "sso-discovery-service.service"
    assert drop_in[0] == f"# /etc/systemd/system/{name}.d/nftables.conf"
    (tmp_path / name).write_text("[Service]\nExecStart=/bin/true\n")
    (tmp_path / f"{name}.d").mkdir()
    (tmp_path / f"{name}.d/nftables.conf").write_text("\n".join(drop_in))
    verified = run(["systemd-analyze", "verify", "--man=no", tmp_path / name])
    assert verified.status == 0 and "nftables" not in verified.stderr, verified


# --- cross-build: another compiler, another architecture, another root

@pytest.fixture(scope="module")
def sysroot():
    """A Debian 12 root for arm64 that nothing runs in; it is kept between runs."""
    kept = cache_folder() / f"sysroot-arm64-{hashlib.sha256(repr(LIBRARIES).encode()).hexdigest()[:12]}"
    if not kept.exists():
        mirror = must("bash", "-c", f". {PROJECT}/scripts/common.sh && debian_mirror").strip()
        with tempfile.TemporaryDirectory(dir=kept.parent) as folder:
            root = Path(folder) / "root"
            must("mmdebstrap", "--quiet", "--variant=extract", "--architectures=arm64",
                 f"--include={','.join(LIBRARIES)}", "bookworm", root, f"deb {mirror} bookworm main")
            make_links_relative(root)
            root.rename(kept)
    return kept


def make_links_relative(root):
    for link in [path for path in root.rglob("*") if path.is_symlink() and os.readlink(path).startswith("/")]:
        target = os.path.relpath(root / os.readlink(link).lstrip("/"), link.parent)
        link.unlink()
        link.symlink_to(target)


@pytest.fixture(scope="module")
def copy(sysroot, tmp_path_factory):
    """A copy of the sources in which the commands may write, with the document's toolchain file."""
    folder = tmp_path_factory.mktemp("copy")
    for name in ("CMakeLists.txt", "cmake", "src", "compat", "client", "packaging", "docs"):
        source = PROJECT / name
        shutil.copytree(source, folder / name) if source.is_dir() else shutil.copy(source, folder)
    text = DOCUMENT.block("With another toolchain or sysroot", "cmake")
    assert text.count("/opt/sdk/sysroot") == 1
    (folder / "device.cmake").write_text(text.replace("/opt/sdk/sysroot", str(sysroot)))
    return folder


@pytest.fixture(scope="module")
def cross_built(copy):
    """What the commands print, and what they leave in build/device and build/image."""
    script = DOCUMENT.block("With another toolchain or sysroot", "sh")
    ended = subprocess.run(["bash", "-euc", script], cwd=copy, text=True, stdin=subprocess.DEVNULL,
                           capture_output=True, timeout=600, check=False)
    assert ended.returncode == 0, ended.stdout[-3000:] + ended.stderr[-3000:]
    return ended.stdout


def test_everything_comes_from_the_sysroot(cross_built, sysroot):
    for found in ("JWT: compat/jwt-cpp/jwt.h on libjwt (", "Found CURL: ", "Found OpenSSL: "):
        assert f"-- {found}{sysroot}/" in cross_built


def test_image_holds_the_files_of_the_table(cross_built, copy):
    installed = [row for row in rows("Install") if re.fullmatch("0[0-7]{3}", row[1])]
    assert len(installed) == 7
    for name, mode, _ in installed:
        # CMake puts the unit below the prefix, and has no multiarch folder when it cross-builds.
        name = re.sub("^/lib/", "/usr/lib/", name.replace("/ARCHITECTURE", ""))
        assert oct((copy / f"build/image{name}").stat().st_mode & 0o777) == oct(int(mode, 8)), name


def test_installation_without_packages(cross_built, copy, tmp_path):
    etc = Etc(tmp_path / "etc", {})
    script = f"cd {copy}\n{DOCUMENT.block('Install', 'sh', 'cmake')}"
    installed = etc.run("bash", "-euc", script, environment={"DESTDIR": str(tmp_path / "image")})
    assert installed.status == 0, installed
    assert "sso-discovery-service" in os.listdir(tmp_path / "image/usr/sbin")
    assert not (tmp_path / "image/usr/bin").exists()
    user, = [line.split(":") for line in (etc.folder / "passwd").read_text().splitlines() if "sso-discovery" in line]
    assert user[5:] == ["/nonexistent", "/usr/sbin/nologin"]
    assert re.search(rf"^sso-discovery:x:{user[3]}:$", (etc.folder / "group").read_text(), re.M)


def test_options_have_the_defaults_of_the_table(cross_built, copy):
    cache = (copy / "build/device/CMakeCache.txt").read_text()
    options = {row[0]: row[1] for row in rows("Cross-build") if len(row) == 3 and re.match("CMAKE_|SSO_", row[0])}
    assert len(options) == 6
    options["CMAKE_INSTALL_PREFIX"] = "/usr"  # the commands set it
    for name, default in options.items():
        assert re.search(rf"^{name}:\w+={default}$", cache, re.M), name


def test_cross_built_service_gets_tokens(cross_built, copy, sysroot, tmp_path):
    folder = copy / "build/image/usr"
    world = World(str(folder / "sbin/sso-discovery-service"), Device(tmp_path / "device"), tmp_path)
    emulated = ["qemu-aarch64", "-L", str(sysroot)]
    try:
        document = world.document(world.new_cloud().discovery_url)
        service = world.start(document, wrapper=emulated).wait_ready()
        client = [*emulated, folder / "bin/sso-client", "--port", service.api.port]
        assert run([*client, "token", "telemetry"]) == success("access/1")
    finally:
        world.close()


def test_libraries_in_a_second_directory_are_found(copy, tmp_path):
    header = tmp_path / "second/include/jwt-cpp/jwt.h"
    header.parent.mkdir(parents=True)
    header.touch()
    configured = must("cmake", "-S", copy, "-B", tmp_path / "build", f"-DCMAKE_TOOLCHAIN_FILE={copy}/device.cmake",
                      f"-DCMAKE_FIND_ROOT_PATH={tmp_path}/second")
    assert f"-- JWT: installed jwt-cpp (header in {tmp_path}/second/include)" in configured


# --- the packet filter's rules, as they are put in place

def test_rules_are_loaded_with_the_machines(tmp_path):
    users = {name: 61000 + number for number, name in enumerate(("sso-discovery", "telemetry", "updater"))}
    etc = Etc(tmp_path / "etc", users)
    systemctl = tmp_path / "bin/systemctl"
    systemctl.parent.mkdir()
    # What nftables.service does.
    systemctl.write_text('#!/bin/sh\n[ "$*" != "restart nftables" ] || nft -f /etc/nftables.conf\n')
    systemctl.chmod(0o755)
    path = f"{systemctl.parent}:{os.environ['PATH']}"
    script = f"cd {PROJECT}\n{DOCUMENT.block('Restrict who may ask', 'sh')}"
    with Network():
        loaded = etc.run("bash", "-euc", script, environment={"PATH": path})
    assert loaded.status == 0 and loaded.stderr == ""
    assert "meta skuid { 0, 61001, 61002 } accept" in loaded.stdout


# --- an authority of one's own

@pytest.fixture
def authority():
    key = new_rsa_key()
    return key, signed("our authority", key, "our authority", key, x509.BasicConstraints(ca=True, path_length=None))


def signed(subject, key, issuer, issuer_key, extension):
    def name(text):
        return x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, text)])

    now = datetime.datetime.utcnow()
    return (x509.CertificateBuilder().subject_name(name(subject)).issuer_name(name(issuer)).public_key(key.public_key())
            .serial_number(x509.random_serial_number()).not_valid_before(now - datetime.timedelta(days=1))
            .not_valid_after(now + datetime.timedelta(days=30)).add_extension(extension, critical=True)
            .sign(issuer_key, hashes.SHA256()).public_bytes(serialization.Encoding.PEM))


@pytest.fixture
def https_cloud(authority, tmp_path):
    """The beginning of a discovery URL. All that the server does is to answer 404."""
    class NotFound(BaseHTTPRequestHandler):
        def do_GET(self):
            self.send_error(404)

        def log_message(self, *_):
            pass

    key = new_rsa_key()
    address = x509.SubjectAlternativeName([x509.IPAddress(ipaddress.ip_address("127.0.0.1"))])
    certificate = signed("server", key, "our authority", authority[0], address)
    (tmp_path / "server.pem").write_bytes(private_pem(key) + certificate)
    server = HTTPServer(("127.0.0.1", 0), NotFound)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(tmp_path / "server.pem")
    server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    yield f"https://127.0.0.1:{server.server_port}/devices/"
    server.shutdown()
    server.server_close()


def test_own_authority_is_trusted_once_it_is_added(world, authority, https_cloud, tmp_path):
    assert "Curl failed. Error: SSL" in world.start(world.document(https_cloud)).wait_failed()

    (tmp_path / "our-authority.crt").write_bytes(authority[1])
    added = tmp_path / "ca-certificates"
    added.mkdir()
    etc = Etc(tmp_path / "etc", {})
    script = (f"set -e\ncd {tmp_path}\nmount --bind {etc.folder} /etc\n"
              f"mount --bind {added} /usr/local/share/ca-certificates\n"
              f"{{ {DOCUMENT.block('Install', 'sh', 'install -m 0644')} }} >{tmp_path}/said 2>&1\n"
              'exec "$@"')
    trusting = ["unshare", "--mount", "--propagation", "private", "sh", "-c", script, "sh"]
    service = world.start(world.document(https_cloud), wrapper=trusting)
    assert service.wait_failed().endswith("Curl returned: 404 Cloud config caching not enabled")


# --- the clock

@pytest.fixture(scope="module")
def made_device(tmp_path_factory):
    return MadeDevice(tmp_path_factory.mktemp("made-device"))


@pytest.fixture(scope="module")
def real_cloud(made_device, tmp_path_factory):
    cloud = NodeCloud(made_device, tmp_path_factory.mktemp("cloud"))
    yield cloud
    cloud.kill()


@pytest.mark.parametrize("wrong_by, reason", [
    ("-250", None), ("-400", "jwt expired"), ("+10", None), ("+60", "jwt not active yet")])
def test_token_with_a_wrong_clock(world, real_cloud, made_device, wrong_by, reason):
    client = ClientCommand(os.path.join(os.path.dirname(os.environ["SSO_SERVICE"]), "sso-client"))
    library = next(Path("/usr/lib").glob("*/faketime/libfaketimeMT.so.1"))
    since = len(real_cloud.log())
    document = world.document(real_cloud.discovery_url, file_provider(made_device))
    service = world.start(document, environment={"LD_PRELOAD": str(library), "FAKETIME": wrong_by})
    service.wait_ready()
    assert client.ask(service.api.port, "ping") == success("ready")
    outcome = client.ask(service.api.port, "token", "telemetry")
    if reason is None:
        assert outcome.status == 0
    else:
        assert outcome == failure(5, "refused by the service: std::exception")
        assert ("SsoClient", "Curl response code: 401") in service.log.pairs()
        assert f"idp refused: {reason}" in real_cloud.log()[since:]
