"""Configuration documents: good ones of each kind, and one step away from them."""

import copy
import json

REMOVED = object()


def file_provider(device):
    return {"type": "file", "key_path": str(device.key_path), "certificate_path": str(device.certificate_path)}


def template_provider(key_template, certificate_template):
    return {"type": "file-template", "prod_key_path": "unused.key", "prod_certificate_path": "unused.crt",
            "key_template": str(key_template), "certificate_template": str(certificate_template)}


def orvex_provider(port):
    return {"type": "Orvex", "port": port}


def configuration(url, provider, ports, level="verbose", cache_folder=None, log_path=None):
    """A complete good document; a cache folder that is given, even an empty one, turns the cache on."""
    cloud = {"url": url, "cache_enabled": cache_folder is not None}
    if cache_folder is not None:
        cloud["cache_folder"] = str(cache_folder)
    section = {"log_level": level, "cloud_config": cloud, "certificate_provider": provider,
               "api_providers": [{"type": "socket", "port": port} for port in ports]}
    if log_path is not None:
        section["log_path"] = str(log_path)
    return {"sso": section}


def changed(document, path, value):
    """A copy in which the member at the dotted path has the value, or is REMOVED."""
    result = copy.deepcopy(document)
    *parents, last = [int(part) if part.isdigit() else part for part in path.split(".")]
    place = result
    for part in parents:
        place = place[part]
    if value is REMOVED:
        del place[last]
    else:
        place[last] = value
    return result


def as_text(document):
    return document if isinstance(document, str) else json.dumps(document, indent=2)
