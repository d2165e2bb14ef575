"""The command line of sso-client: where the port comes from, and what is refused before anything is sent."""

import json
import os
import re
import socket

import pytest

from support.client_command import Outcome, failure, success
from support.exchanges import ID_REPLY, ID_REQUEST
from support.fake_service import FakeService
from support.framing import frame
from support.http_server import Raw
from support.ports import LOOPBACK

DEVICE = success("device-0001")


@pytest.fixture
def fake():
    with FakeService(Raw(frame(ID_REPLY))) as fake:
        yield fake


class Bystander:
    """A port that takes connections, and knows whether there was one."""

    def __init__(self):
        self._listener = socket.create_server((LOOPBACK, 0))
        self._listener.setblocking(False)
        self.port = self._listener.getsockname()[1]

    def was_asked(self):
        try:
            self._listener.accept()[0].close()
            return True
        except BlockingIOError:
            return False

    def close(self):
        self._listener.close()


@pytest.fixture
def bystander():
    bystander = Bystander()
    yield bystander
    bystander.close()


def configuration_with(tmp_path, providers):
    """A configuration file that has nothing but its API providers, given as text."""
    path = tmp_path / "config.json"
    path.write_text('{"sso":{"api_providers":%s}}' % providers)
    return path


# --- the port

def test_bystander_notices_a_connection(client, bystander):
    assert client.ask(bystander.port, "ping", "--timeout", "0.05").status == 4
    assert bystander.was_asked()
    assert not bystander.was_asked()


@pytest.mark.parametrize("arguments", [
    ["--port", "{port}", "certificate-id"], ["--port={port}", "certificate-id"], ["certificate-id", "--port", "{port}"],
    ["--port", "1", "certificate-id", "--port", "{port}"], ["--port", "000{port}", "certificate-id"],
    ["--timeout", "86400", "--port", "{port}", "certificate-id"],
    ["--timeout", "60.", "certificate-id", "--port={port}"], ["--timeout", "20.5", "certificate-id", "--port={port}"],
], ids=" ".join)
@pytest.mark.parametrize("environment", [{}, {"SSO_PORT": "1"}, {"SSO_PORT": "nonsense"}], ids=str)
def test_port_option(client, fake, arguments, environment):
    arguments = [argument.format(port=fake.port) for argument in arguments]
    assert client.run(*arguments, environment=environment) == DEVICE
    assert fake.requests == [ID_REQUEST]


def test_port_from_the_environment(client, fake):
    assert client.run("certificate-id", environment={"SSO_PORT": str(fake.port)}) == DEVICE


def test_port_from_the_services_own_configuration(client, service):
    assert client.run("--config", service.configuration_path, "certificate-id") == DEVICE


@pytest.mark.parametrize("environment", [{}, {"SSO_PORT": "1"}, {"SSO_PORT": "nonsense"}], ids=str)
@pytest.mark.parametrize("providers", [
    '[{"type":"socket","port":PORT}]', '[ {"port" : PORT , "type":"socket"}]',
    '[{"port":PORT},{"port":1},{"port":"x"},5]', '[{"port":PORT.9}]', '[{"port":PORTe0}]', '[{"port":PORTE+9}]',
    '[{"a":{"port":1},"b":[{"port":2}],"port":PORT}]', '[{"\\u0070ort":PORT}]', '[{"port":PORT}]}} and {"more',
], ids=str)
def test_port_from_a_configuration(client, fake, tmp_path, providers, environment):
    path = configuration_with(tmp_path, providers.replace("PORT", str(fake.port)))
    assert client.run("--config", path, "certificate-id", environment=environment) == DEVICE


def test_port_from_the_last_configuration_named(client, fake, tmp_path):
    path = configuration_with(tmp_path, '[{"port":%d}]' % fake.port)
    assert client.run("--config", "/nonexistent", "certificate-id", f"--config={path}") == DEVICE


def test_service_and_command_read_the_same_port(client, world, cloud, tmp_path):
    document = world.document(cloud.discovery_url)
    text = json.dumps(document).replace('"port": ', '"port": \n').replace("}]}}", ".75}]}} } more")
    port = document["sso"]["api_providers"][0]["port"]
    assert f"{port}.75" in text
    service = world.start(text)
    service.wait_listening(port)
    assert client.run("--config", service.configuration_path, "reset") == Outcome(0, "", "")


# --- usage errors: status 2, one line, and nobody is asked

LONG = "9" * 20
NO_PORT = "which port? Give --port, --config or SSO_PORT in the environment"
USAGE_ERRORS = [
    ([], "no request given; see sso-client --help"),
    (["--json"], "no request given; see sso-client --help"),
    (["--"], "no request given; see sso-client --help"),
    (["tokens"], "'tokens' is no request; see sso-client --help"),
    (["Token", "a"], "'Token' is no request; see sso-client --help"),
    (["certificate_id"], "'certificate_id' is no request; see sso-client --help"),
    (["-"], "'-' is no request; see sso-client --help"),
    ([""], "'' is no request; see sso-client --help"),
    (["a\nb\x1b"], "'a?b?' is no request; see sso-client --help"),
    (["ping", "a\nb"], "'a?b' is one argument too many"),
    (["--port", "1\n", "ping"], "--port: '1?' is no port (1 to 65535)"),
    (["--config", "/nonexistent\n", "ping"],
     "configuration file /nonexistent? cannot be read: No such file or directory"),
    (["%s%n"], "'%s%n' is no request; see sso-client --help"),
    (["token"], "which scope? Give it behind 'token'"),
    (["token", "--json"], "which scope? Give it behind 'token'"),
    (["token", ""], "the scope is empty"),
    (["token", "a" * 4097], "the scope is longer than 4096 bytes"),
    (["token", "a" * 100000], "the scope is longer than 4096 bytes"),
    *((["token", f"a{control}b"], "the scope holds a control character") for control in "\n\t\x01\x1f\x7f"),
    (["token", "a", "b"], "'b' is one argument too many"),
    *(([request, "surplus"], "'surplus' is one argument too many")
      for request in ("data", "certificate-id", "reset", "ping")),
    (["ping", "--", "--json"], "'--json' is one argument too many"),
    *((["--port", port, "ping"], f"--port: '{port}' is no port (1 to 65535)")
      for port in ("0", "65536", "-1", "abc", "", " 5", "5 ", "+5", "5.0", "0x50", "5e3", LONG, f"-{LONG}")),
    *((["--timeout", time, "ping"], f"--timeout: '{time}' is no time in seconds (0.001 to 86400)")
      for time in ("0", "-1", "abc", "nan", "inf", "1e3", "86401", "", ".", "1.2.3", " 1", "1s", "0x1", "1,5", "0.0009",
                   "86400.1", LONG)),
    (["--bogus", "ping"], "'--bogus' is no option; see sso-client --help"),
    (["ping", "--bogus"], "'--bogus' is no option; see sso-client --help"),
    (["ping", "--bogus=1"], "'--bogus=1' is no option; see sso-client --help"),
    (["ping", "--bo\ngus"], "'--bo?gus' is no option; see sso-client --help"),
    (["-x", "ping"], "'-x' is no option; see sso-client --help"),
    (["-p", "5055", "ping"], "'-p' is no option; see sso-client --help"),
    (["-xy", "ping"], "'-x' is no option; see sso-client --help"),
    (["-\a", "ping"], "'-?' is no option; see sso-client --help"),
    *((["ping", option], f"{option} needs a value") for option in ("--port", "--config", "--timeout")),
    (["ping", "--json=yes"], "'--json=yes' is no option; see sso-client --help"),
]


def expect_usage_error(client, bystander, arguments, message, **environment):
    """The port of somebody who would notice stands in the environment."""
    outcome = client.run(*arguments, environment={"SSO_PORT": str(bystander.port), **environment})
    assert outcome == failure(2, message)
    assert not bystander.was_asked()


@pytest.mark.parametrize("arguments, message", USAGE_ERRORS, ids=[" ".join(row[0])[:40] for row in USAGE_ERRORS])
def test_usage_error(client, bystander, arguments, message):
    expect_usage_error(client, bystander, arguments, message)


@pytest.mark.parametrize("value", ["", "0", "65536", "abc", " 5"])
def test_bad_port_in_the_environment(client, bystander, value):
    expect_usage_error(client, bystander, ["ping"], f"SSO_PORT: '{value}' is no port (1 to 65535)", SSO_PORT=value)


def test_no_port_at_all(client):
    assert client.run("ping") == failure(2, NO_PORT)


def test_port_and_configuration_exclude_each_other(client, bystander, tmp_path):
    path = configuration_with(tmp_path, '[{"port":%d}]' % bystander.port)
    for arguments in (["--port", bystander.port, "--config", path], ["--config", path, "--port", bystander.port]):
        expect_usage_error(client, bystander, [*arguments, "ping"], "--port and --config exclude each other")


# --- configurations that give no port

@pytest.mark.parametrize("name, reason", [
    ("missing", "No such file or directory"), ("", "Is a directory"), ("file/below", "Not a directory")])
def test_configuration_that_cannot_be_read(client, bystander, tmp_path, name, reason):
    (tmp_path / "file").write_text("")
    path = tmp_path / name
    expect_usage_error(client, bystander, ["--config", path, "ping"],
                       f"configuration file {path} cannot be read: {reason}")


def test_configuration_that_does_not_end(client, bystander):
    expect_usage_error(client, bystander, ["--config", "/dev/zero", "ping"], "configuration file /dev/zero is too long")


def test_configuration_in_a_pipe_that_nobody_writes(client, bystander, tmp_path):
    path = tmp_path / "pipe"
    os.mkfifo(path)
    expect_usage_error(client, bystander, ["--config", path, "ping"], f"configuration file {path} is not valid JSON")


def test_configuration_that_comes_slowly_through_a_pipe(client, fake):
    script = """sso-client --config <(sleep 0.3; echo '{"sso":{"api_providers":[{"port":%d}]}}') certificate-id"""
    assert client.in_bash(script % fake.port, 1) == DEVICE


@pytest.mark.parametrize("text", [
    "", " ", "{", "hello", '{"sso":{"api_providers":[{"port":5055}]}', '{"sso":{"api_providers":[{"port":05055}]}}',
    "\ufeff{}", '{"sso":{"api_providers":[{"port":5055}]}\0}', "[" * 100000,
], ids=lambda text: repr(text[:60]))
def test_configuration_that_is_no_json(client, bystander, tmp_path, text):
    path = tmp_path / "config.json"
    path.write_text(text)
    expect_usage_error(client, bystander, ["--config", path, "ping"], f"configuration file {path} is not valid JSON")


@pytest.mark.parametrize("text", [
    "{}", "[]", "5", '"sso"', '{"sso":5}', '{"sso":[]}', '{"sso":{}}', '{"api_providers":[{"port":5055}]}',
    '{"sso":{"api_providers":{}}}', '{"sso":{"api_providers":{"port":5055}}}', '{"sso":{"api_providers":[]}}',
    '{"sso":{"api_providers":[5055]}}', '{"sso":{"api_providers":[{}]}}', '{"sso":{"api_providers":[[]]}}',
    '{"sso":{"api_providers":[{},{"port":5055}]}}', '{"sso":{"api_providers":[[{"port":5055}]]}}',
    '{"SSO":{"api_providers":[{"port":5055}]}}',
    *('{"sso":{"api_providers":[{"port":%s}]}}' % port for port in ('"5055"', "null", "true", "{}", "[5055]")),
], ids=str)
def test_configuration_without_a_port(client, bystander, tmp_path, text):
    path = tmp_path / "config.json"
    path.write_text(text)
    expect_usage_error(client, bystander, ["--config", path, "ping"],
                       f"configuration file {path} has no number sso.api_providers[0].port")


@pytest.mark.parametrize("port, digits", [
    ("0", "0"), ("65536", "65536"), ("-1", "-1"), ("0.9", "0"), ("-0", "-0"), ("65536.5", "65536"), (LONG, LONG)])
def test_configured_port_out_of_range(client, bystander, tmp_path, port, digits):
    path = configuration_with(tmp_path, '[{"port":%s}]' % port)
    expect_usage_error(client, bystander, ["--config", path, "ping"], f"{path}: '{digits}' is no port (1 to 65535)")


# --- about the command itself

NAMES = ["token SCOPE", "data", "certificate-id", "reset", "ping", "--port", "--config", "--timeout", "--json",
         "--help", "--version", "SSO_PORT"]


@pytest.mark.parametrize("arguments", [["--help"], ["ping", "--help"], ["--port", "1", "--help"]], ids=" ".join)
def test_help_names_everything(client, bystander, arguments):
    outcome = client.run(*arguments, environment={"SSO_PORT": str(bystander.port)})
    assert (outcome.status, outcome.stderr) == (0, "")
    assert outcome.stdout.startswith("usage: sso-client [OPTION]... REQUEST\n")
    assert [name for name in NAMES if not re.search(rf"(?<![\w-]){name}(?![\w-])", outcome.stdout)] == []
    statuses = outcome.stdout.partition("exit status:\n")[2]
    assert re.findall(r"(?:^|, |,\n)\s*(\d) \w", statuses) == [str(number) for number in range(8)]
    assert all(len(line) <= 120 for line in outcome.stdout.splitlines())
    assert not bystander.was_asked()


def test_version(client):
    assert client.run("--version") == success("sso-client 1.0.0")
