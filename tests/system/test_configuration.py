"""The configuration file: every rejection with all that is logged up to it, and what is accepted."""

import pytest

from support.api_client import ApiClient
from support.configuration import REMOVED, as_text, changed, orvex_provider, template_provider
from support.log import error, info
from support.texts import (API, CONFIGURATION_FAILED, MANAGER, NO_PROVIDER, apis_started, cloud_settings, configured,
                           initialised, opening, provider_created)

URL = "http://127.0.0.1:9/devices/"
LEVELS = pytest.mark.parametrize("level", ["error", "warning", "info", "verbose"])

CLOUD = "sso.cloud_config"
PROVIDER = "sso.certificate_provider"
APIS = "sso.api_providers"
ENTRY = "sso.api_providers.0"

CONFIGURING_CLOUD = info(MANAGER, "Configuring cloud settings")
CONFIGURING_APIS = info(MANAGER, "Configuring SSO API Providers")
FILE_PROVIDER = provider_created("file")


def path_error(text):
    """A summary that names the file; the path is put in when the service has one."""
    return error(MANAGER, text)


CLOUD_INCOMPLETE = path_error("Cloud configuration in {path} file is incomplete ")
PROVIDER_FAILED = error(MANAGER, "Certificate Provider couldn't be configured ")
API_FAILED = error(MANAGER, "SSO API Provider couldn't be configured ")
NUMBER_OUT_OF_RANGE = path_error("Error processing configuration file {path}, error stoi ")


def missing(text):
    return error(MANAGER, f"Configuration file is missing {text}")


def kind(name):
    return info(MANAGER, f"Certificate provider type: {name}")


FILE_PATHS = missing("sso.certificate_provider.key_path or sso.certificate_provider.certificate_path")
TEMPLATE_KEYS = error(MANAGER, "Configuration file: sso.certificate_provider.prod_key_path, "
                      "sso.certificate_provider.prod_certificate_path, sso.certificate_provider.key_template, "
                      "sso.certificate_provider.certificate_template required for file-template")
ONE_PLACE = error(MANAGER, "Configuration file: exactly 1 occurence of %s in each "
                  "sso.certificate_provider.key_template and sso.certificate_provider.certificate_template "
                  "required for file-template")
ORVEX_PORT = error(MANAGER, "Configuration file: sso.certificate_provider.port required for Orvex")
ONE_API = [CONFIGURING_APIS, info(MANAGER, "Number of SSO API Providers: 1")]

GOOD_TEMPLATES = template_provider("/k/%s.key", "/k/%s.crt")


def templates_with(name, value):
    return {**GOOD_TEMPLATES, name: value}


def absent_or_wrong(path, *wrong):
    """A member that is missing, and the same member with each wrong type: both are reported alike."""
    return [(f"{path} {'missing' if value is REMOVED else repr(value)}", path, value) for value in (REMOVED, *wrong)]


def rejections():
    """(name, path, value, lines after the opening, last line)"""
    def rows(cases, lines, last):
        return [(name, path, value, lines, last) for name, path, value in cases]

    not_a_string = (5, True, None, {}, [])
    cloud_set = cloud_settings(URL)
    provider_set = [*cloud_set, *FILE_PROVIDER]
    template_lines = [*cloud_set, kind("file-template"), TEMPLATE_KEYS, PROVIDER_FAILED]
    return [
        *rows(absent_or_wrong(CLOUD, 5, "text", True, None),
              [path_error("Configuration file {path} is missing sso.cloud_config section")], NO_PROVIDER),
        *rows([*absent_or_wrong(CLOUD + ".url", *not_a_string), ("cloud_config an array", CLOUD, [])],
              [CONFIGURING_CLOUD, missing("sso.cloud_config.url "), CLOUD_INCOMPLETE], NO_PROVIDER),
        *rows(absent_or_wrong(CLOUD + ".cache_enabled", "true", 1, None, {}),
              [CONFIGURING_CLOUD, missing("sso.cloud_config.cahe_enabled "), CLOUD_INCOMPLETE], NO_PROVIDER),
        *rows([(f"cache on, cache_folder {name}", CLOUD, {"url": URL, "cache_enabled": True, **folder})
               for name, folder in [("missing", {}), ("a number", {"cache_folder": 5}),
                                    ("null", {"cache_folder": None})]],
              [CONFIGURING_CLOUD, missing("sso.cloud_config.cahe_folder "), CLOUD_INCOMPLETE], NO_PROVIDER),
        *rows(absent_or_wrong(PROVIDER, 5, "file", False),
              [*cloud_set, path_error("Configuration file {path} is missing sso.certificate_provider section")],
              NO_PROVIDER),
        *rows([*absent_or_wrong(PROVIDER + ".type", *not_a_string), ("certificate_provider an array", PROVIDER, [])],
              [*cloud_set, missing("sso.certificate_provider.type"), PROVIDER_FAILED], NO_PROVIDER),
        *[row for name in ("File", "FILE", "orvex", "ORVEX", "File-Template", "file ", "", "50%s")
          for row in rows([(f"type {name!r}", PROVIDER + ".type", name)],
                          [*cloud_set, kind(name),
                           error(MANAGER, f"Unsupported certificate provider type: {name}"), PROVIDER_FAILED],
                          NO_PROVIDER)],
        *rows([*absent_or_wrong(PROVIDER + ".key_path", *not_a_string),
               *absent_or_wrong(PROVIDER + ".certificate_path", *not_a_string)],
              [*cloud_set, kind("file"), FILE_PATHS, PROVIDER_FAILED], NO_PROVIDER),
        *rows([(f"{member} {'missing' if value is REMOVED else repr(value)}", PROVIDER,
                {key: item for key, item in templates_with(member, value).items() if item is not REMOVED})
               for member in ("prod_key_path", "prod_certificate_path", "key_template", "certificate_template")
               for value in (REMOVED, 5)], template_lines, NO_PROVIDER),
        *rows([(f"{member} {text!r}", PROVIDER, templates_with(member, text))
               for member in ("key_template", "certificate_template")
               for text in ("/k/%s-%s.pem", "/k/key.pem", "/k/%d-%s.pem", "/k/%%s.pem", "/k/%", "")],
              [*cloud_set, kind("file-template"), ONE_PLACE, PROVIDER_FAILED], NO_PROVIDER),
        *rows([(f"Orvex {'without port' if not more else more}", PROVIDER, {"type": "Orvex", **more})
               for more in ({}, {"port": "7000"}, {"port": None}, {"port": [7000]})],
              [*cloud_set, kind("Orvex"), ORVEX_PORT, PROVIDER_FAILED], NO_PROVIDER),
        *rows([(f"Orvex port {port}", PROVIDER, orvex_provider(port)) for port in (2 ** 31, 10 ** 30, -2 ** 31 - 1)],
              [*cloud_set, kind("Orvex"), NUMBER_OUT_OF_RANGE], NO_PROVIDER),
        *rows(absent_or_wrong(APIS, 5, "text", {}, {"type": "socket", "port": 5000}),
              [*provider_set, missing("sso.api_providers ARRAY section")], CONFIGURATION_FAILED),
        *rows(absent_or_wrong(ENTRY + ".type", *not_a_string),
              [*provider_set, *ONE_API, missing("type for an api_provider"), API_FAILED], CONFIGURATION_FAILED),
        *[row for name in ("Socket", "pipe", "")
          for row in rows([(f"api type {name!r}", ENTRY + ".type", name)],
                          [*provider_set, *ONE_API, info(MANAGER, f"SSO Provider type: {name}"),
                           error(MANAGER, "Unsupported certificate provider type: "), API_FAILED],
                          CONFIGURATION_FAILED)],
        *rows(absent_or_wrong(ENTRY + ".port", "5000", None, True, {}),
              [*provider_set, *ONE_API, info(MANAGER, "SSO Provider type: socket"),
               missing("port for socket api provider"), API_FAILED], CONFIGURATION_FAILED),
        *rows([(f"api port {port}", ENTRY + ".port", port) for port in (2 ** 31, 10 ** 30)],
              [*provider_set, *ONE_API, info(MANAGER, "SSO Provider type: socket"),
               info(MANAGER, "Starting SSO API Provider: socket"), NUMBER_OUT_OF_RANGE], CONFIGURATION_FAILED),
        *rows([("api entry not an object", ENTRY, 5)],
              [*provider_set, *ONE_API,
               path_error("Error processing configuration file {path}, error Input is not a valid object ")],
              CONFIGURATION_FAILED),
    ]


def with_path(lines, service):
    return [line._replace(text=line.text.replace("{path}", str(service.configuration_path))) for line in lines]


@LEVELS
@pytest.mark.parametrize("path, value, lines, last", [pytest.param(*row[1:], id=row[0]) for row in rejections()])
def test_rejection_is_logged_step_by_step_and_ends_with_status_1(world, path, value, lines, last, level):
    service = world.start(changed(world.document(URL, level=level), path, value))
    service.expect_exit(1)
    service.expect_log([*opening(service.configuration_path), *with_path([*lines, last], service)], without=API)


def test_second_api_provider_is_not_looked_at_after_a_bad_first(world):
    document = world.document(URL, ports=[world.new_port(), world.new_port()])
    service = world.start(changed(document, "sso.api_providers.0.type", "pipe"))
    service.expect_exit(1)
    service.expect_log([*opening(service.configuration_path), *cloud_settings(URL), *FILE_PROVIDER, CONFIGURING_APIS,
                        info(MANAGER, "Number of SSO API Providers: 2"), info(MANAGER, "SSO Provider type: pipe"),
                        error(MANAGER, "Unsupported certificate provider type: "), API_FAILED, CONFIGURATION_FAILED])


@pytest.mark.parametrize("text, reason", [
    ("", "Input is not a valid object"), ("hello", "Input is not a valid object"),
    ('{"sso":{', "Input is not a valid object"), ('{"sso":', "Input was only whitespace"),
    ('{"sso":{},"sso":{}}', "Key conflict"), ('{"":1}', "Missing key"),
    ('{"sso":{"log_level":"a\\/b"}}', "Input is not a valid object"),
], ids=repr)
def test_unreadable_json_is_reported_by_both_readers(world, text, reason):
    service = world.start(text)
    service.expect_exit(1)
    path = service.configuration_path
    failure = (MANAGER, f"Error processing configuration file {path}, error {reason} ")
    assert service.log.pairs() == [failure, (MANAGER, "CLOUD_ENV: "),
                                   (MANAGER, f"Reading configuration from {path}"), failure,
                                   (NO_PROVIDER.source, NO_PROVIDER.text)]


@pytest.mark.parametrize("text", ["{}", '{"SSO":{}}', '{"sso":5}', '{"sso":"x"}', '{"sso":null}', "[1]"])
def test_missing_sso_section_is_reported_by_both_readers(world, text):
    service = world.start(text)
    service.expect_exit(1)
    path = service.configuration_path
    failure = (MANAGER, f"Configuration file {path} is missing sso section")
    assert service.log.pairs() == [failure, (MANAGER, "CLOUD_ENV: "),
                                   (MANAGER, f"Reading configuration from {path}"), failure,
                                   (NO_PROVIDER.source, NO_PROVIDER.text)]


def test_sso_given_as_an_array_is_taken_for_an_empty_section(world):
    service = world.start('{"sso":[]}')
    service.expect_exit(1)
    path = service.configuration_path
    assert service.log.pairs() == [(MANAGER, f"Configuration file {path} is missing sso.log_level"),
                                   (MANAGER, "CLOUD_ENV: "), (MANAGER, f"Reading configuration from {path}"),
                                   (MANAGER, f"Configuration file {path} is missing sso.cloud_config section"),
                                   (NO_PROVIDER.source, NO_PROVIDER.text)]


def test_cache_off_needs_no_folder(world, cloud):
    service = world.start(world.document(cloud.discovery_url)).wait_ready()
    assert "cache_folder" not in service.section["cloud_config"]
    assert (MANAGER, f"Cloud URL: {cloud.discovery_url}. Cache is not used.") in service.log.pairs()


def test_cache_folder_is_named_as_configured(world, cloud):
    folder = world.new_folder("cache")
    service = world.start(world.document(cloud.discovery_url, cache_folder=folder)).wait_ready()
    assert (MANAGER, f"Cloud URL: {cloud.discovery_url}. Cached cloud config stored in {folder} directory."
            ) in service.log.pairs()


def test_unlisted_keys_are_ignored(world, cloud):
    document = world.document(cloud.discovery_url)
    for path in ("more", "sso.more", "sso.cloud_config.more", "sso.certificate_provider.more",
                 "sso.api_providers.0.more"):
        document = changed(document, path, {"a": [1, {"b": None}]})
    service = world.start(document).wait_ready()
    service.expect_main_log([*configured(service), *initialised(cloud)])


def test_text_behind_the_document_is_ignored(world, cloud):
    document = world.document(cloud.discovery_url)
    service = world.start(document)
    service.wait_ready()
    service.stop()
    again = world.start(as_text(document) + "\n} anything")
    again.log.wait_for(MANAGER, "Cloud config successfully retrieved. Creating SsoClient")


@pytest.mark.parametrize("ending", [".7", ".999"])
def test_a_fraction_of_an_api_port_is_cut_off(world, cloud, ending):
    port = world.new_port()
    text = as_text(world.document(cloud.discovery_url, ports=[port])).replace(f": {port}", f": {port}{ending}")
    service = world.start(text)
    service.wait_listening(port)
    assert ApiClient(port).exchange("{}") == b'{"status":"error","message":"request not specified"}'


def test_a_fraction_of_the_key_service_port_is_cut_off(world, cloud):
    key_service = world.new_key_service()
    provider = orvex_provider(key_service.port + 0.5)
    world.start(world.document(cloud.discovery_url, provider)).wait_ready()
    assert len(key_service.wait_exchanges(2)) == 2


def test_no_api_provider_at_all_is_accepted(world, cloud):
    service = world.start(world.document(cloud.discovery_url, ports=[]))
    service.log.wait_for(MANAGER, "Cloud config successfully retrieved. Creating SsoClient")
    service.expect_log([*opening(service.configuration_path), *cloud_settings(cloud.discovery_url), *FILE_PROVIDER,
                        *apis_started(0), *initialised(cloud)])
    service.stop()


def test_without_log_level_the_service_is_configured_and_logs_at_debug(world, cloud):
    service = world.start(changed(world.document(cloud.discovery_url, log_path="ignored"), "sso.log_level", REMOVED))
    service.wait_ready()
    path = service.configuration_path
    settings = error(MANAGER, f"Configuration file {path} is missing sso.log_level")
    service.expect_main_log([settings, *configured(service), *initialised(cloud)])
    assert not list(service.folder.glob("ignored*"))


@pytest.mark.parametrize("value", [4, None, True, {}, []], ids=repr)
def test_log_level_of_a_wrong_type_is_reported_as_missing(world, value):
    service = world.start(changed(world.document(URL, ports=[]), "sso.log_level", value))
    service.log.wait_for(MANAGER, "CLOUD_ENV: ")
    assert service.log.pairs()[0] == (
        MANAGER, f"Configuration file {service.configuration_path} is missing sso.log_level")
