"""The log lines of an exchange with the key service, as far as it gets."""

from .fake_key_service import PRIVATE_KEY
from .log import debug, info
from .texts import ORVEX, key_service_announced, key_service_asked, key_service_received


def opened(word):
    what = "key" if word == PRIVATE_KEY else "certificate"
    return [info(ORVEX, f"Orvex retrieving the {what}"),
            info(ORVEX, f"Orvex Sending {word.decode()} key/certificate request"),
            info(ORVEX, "Orvex Key Certificate socket successfully created")]


def sent(word):
    return [*opened(word), info(ORVEX, "Orvex Key Certificate connected to the server"),
            debug(ORVEX, f"Orvex Sending {word.decode()} key/certificate request"), key_service_asked(word)]


def exchanged(word, count):
    return [*sent(word), key_service_announced(count), key_service_received(count)]
