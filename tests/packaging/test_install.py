"""What `cmake --install` puts where: the component `service`, for the prefixes that matter. SSO_INSTALL_BUILD may name
a folder in which the project is built, and is kept for the next time."""

import json
import os
import re
import stat
import subprocess

import pytest

from support.client_package import must
from support.project_build import PROJECT, ProjectBuild, files

# How each place is called below the prefixes /usr and /usr/local.
PREFIXES = {"/usr": "etc", "/usr/local": "usr/local/etc"}
SERVICE = ["sbin/sso-discovery-service", "lib/systemd/system/sso-discovery-service.service",
           "libexec/sso-discovery-service/restart-pause", "share/man/man8/sso-discovery-service.8",
           "share/man/man5/sso-discovery-service.json.5", "share/doc/sso-discovery-service/examples/credentials.conf",
           "share/doc/sso-discovery-service/examples/sso-discovery-service.nft",
           "share/doc/sso-discovery-service/examples/sso-discovery-service"]
PROGRAMS = {"sso-discovery-service", "restart-pause"}
UNIT = "lib/systemd/system/sso-discovery-service.service"


class Tree:
    """What is installed for a prefix, below another root."""

    def __init__(self, build, prefix, root, *options):
        build.configure(prefix)
        build.install(*options, below=root)
        self.prefix = prefix
        self.root = root
        self.configuration_folder = PREFIXES[prefix] + "/sso-discovery-service"

    def path(self, device_path):
        return self.root / device_path.lstrip("/")

    def text(self, name):
        return self.path(f"{self.prefix}/{name}").read_text()

    def expected(self):
        return sorted([f"{self.prefix}/{name}"[1:] for name in SERVICE] + [self.configuration_folder + "/config.json"])


@pytest.fixture(scope="module")
def build(tmp_path_factory):
    return ProjectBuild(os.environ.get("SSO_INSTALL_BUILD") or tmp_path_factory.mktemp("build"))


@pytest.fixture(scope="module", params=PREFIXES)
def tree(build, request, tmp_path_factory):
    return Tree(build, request.param, tmp_path_factory.mktemp("tree"), "--component", "service")


def test_files(tree):
    assert files(tree.root) == tree.expected()


@pytest.mark.parametrize("prefix", PREFIXES)
def test_all_components_together(build, tmp_path, prefix):
    tree = Tree(build, prefix, tmp_path)
    found = files(tmp_path)
    assert set(tree.expected()) < set(found)
    assert f"{prefix}/bin/sso-client"[1:] in found and f"{prefix}/include/ssoclient.h"[1:] in found


def test_modes(tree):
    for name in files(tree.root):
        program = os.path.basename(name) in PROGRAMS
        assert stat.S_IMODE((tree.root / name).stat().st_mode) == (0o755 if program else 0o644), name


def test_nothing_names_the_folders_it_comes_from(build, tree):
    for name in files(tree.root):
        content = (tree.root / name).read_bytes()
        for folder in (PROJECT, build.folder, tree.root):
            assert str(folder).encode() not in content, f"{folder} in {name}"


def test_no_placeholder_is_left(tree):
    for name in files(tree.root):
        assert not re.search(rb"@\w+@", (tree.root / name).read_bytes()), name


def test_executable_finds_its_libraries_where_the_device_has_them(tree):
    executable = tree.path(f"{tree.prefix}/sbin/sso-discovery-service")
    assert not re.search(r"\((RPATH|RUNPATH)\)", must("readelf", "--wide", "--dynamic", executable))


# --- the paths in the texts

def commands(unit):
    """The programs that the unit starts, and their arguments that are paths; a reload takes what every device has."""
    for line in re.findall(r"^Exec(?!Reload)\w+=-?(.+)$", unit, re.M):
        program, *arguments = line.split()
        yield program
        yield from (argument for argument in arguments if argument.startswith("/"))


def test_unit_names_what_is_installed(tree):
    named = list(commands(tree.text(UNIT)))
    assert len(named) == 4
    for path in named:
        assert tree.path(path).is_file(), path


def test_unit_and_init_script_name_the_same_files(tree):
    script = tree.text("share/doc/sso-discovery-service/examples/sso-discovery-service")
    values = dict(re.findall(r"^(\w+)=(\S+)$", script, re.M))
    start = re.search(r"^ExecStart=(.*)$", tree.text(UNIT), re.M).group(1).split()
    assert [values["program"].replace("$name", values["name"]), values["configuration"]] == start
    defaults = re.search(r"^EnvironmentFile=-(.*)$", tree.text(UNIT), re.M).group(1)
    assert f"done <{defaults}\n" in script


def test_configuration_names_the_folder_that_it_is_in(tree):
    text = tree.path(f"{tree.configuration_folder}/config.json").read_text()
    provider = json.loads(text)["sso"]["certificate_provider"]
    assert provider == {"type": "file", "key_path": f"/{tree.configuration_folder}/device.key",
                        "certificate_path": f"/{tree.configuration_folder}/device.crt"}


def test_configuration_stands_in_the_manual_page(tree):
    text = tree.path(f"{tree.configuration_folder}/config.json").read_text()
    assert text in tree.text("share/man/man5/sso-discovery-service.json.5")


def test_credentials_example_names_the_files_of_the_configuration(tree):
    text = tree.text("share/doc/sso-discovery-service/examples/credentials.conf")
    assert re.findall(r"^LoadCredential=(.*)$", text, re.M) == [
        f"device.{kind}:/{tree.configuration_folder}/device.{kind}" for kind in ("key", "crt")]


# --- options

def test_unit_folder_may_be_outside_the_prefix(build, tmp_path):
    build.configure("/usr", "-DSSO_SYSTEMD_UNIT_DIR=/lib/systemd/system")
    build.install("--component", "service", below=tmp_path)
    assert (tmp_path / UNIT).is_file()
    assert not (tmp_path / "usr" / UNIT).exists()


def test_another_prefix_at_install_time_is_refused_for_the_service(build, tmp_path):
    build.configure("/usr")
    result = subprocess.run(["cmake", "--install", build.folder, "--component", "service", "--prefix", tmp_path],
                            text=True, capture_output=True, timeout=60, check=False)
    assert result.returncode == 1
    assert f"Configure with -DCMAKE_INSTALL_PREFIX={tmp_path}, or set DESTDIR." in " ".join(result.stderr.split())
    assert files(tmp_path) == []


def test_another_prefix_at_install_time_is_fine_for_the_client(build, tmp_path):
    build.configure("/usr")
    build.install("--component", "runtime", "--prefix", tmp_path)
    assert "bin/sso-client" in files(tmp_path)


def test_configuration_of_the_device_stays(build, tmp_path):
    prefix = tmp_path / "device"
    build.configure(prefix)
    build.install("--component", "service")
    configuration = prefix / "etc/sso-discovery-service/config.json"
    assert json.loads(configuration.read_text())["sso"]["certificate_provider"]["key_path"] == str(
        configuration.with_name("device.key"))
    configuration.write_text("changed")
    build.install("--component", "service")
    assert configuration.read_text() == "changed"
    build.install("--component", "service", below=tmp_path / "staged")
    assert json.loads((tmp_path / "staged" / configuration.relative_to("/")).read_text())
