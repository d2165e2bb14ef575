"""The exchanges with the local API that many tests use, as bytes and as log lines."""

from .log import debug, error
from .texts import API, GENERIC_FAILURE, request_processed

ID_REQUEST = b'{"request":"certificate_id"}'
ID_REPLY = b'{"status":"ok","certificate_id":"device-0001"}'
ID_SENT = debug(API, f"SSO API Sending json certificate id reply {ID_REPLY.decode()}")
NOT_AN_OBJECT = b'{"status":"error","message":"Input is not a valid object"}'
INVALID_REQUEST = error(API, "Invalid request format: Input is not a valid object")
EMPTY_REQUEST = [*request_processed(""), INVALID_REQUEST]  # what a request becomes that could not be read
TOKEN_REFUSED = b'{"status":"error","message":"%s"}' % GENERIC_FAILURE.encode()
RESET_CONFIRMED = debug(API, 'SSO API Sending reset confirmation {"status":"ok"}')


def token_request(scope="device"):
    return f'{{"request":"token","scope":"{scope}"}}'


def expect_answered(service):
    """Whatever happened before: the next client is served."""
    assert service.api.exchange(ID_REQUEST) == ID_REPLY


def answers(service):
    """Whether the next client is served, when it need not be."""
    try:
        return service.api.exchange(ID_REQUEST) == ID_REPLY
    except (OSError, EOFError):
        return False
