"""libcurl's own texts, which the service passes on and which differ between versions of the library."""

import ctypes

UNSUPPORTED_PROTOCOL = 1
COULD_NOT_RESOLVE = 6
COULD_NOT_CONNECT = 7
WEIRD_SERVER_REPLY = 8
PARTIAL_FILE = 18
WRITE_ERROR = 23
OUT_OF_MEMORY = 27
TIMED_OUT = 28
TLS_FAILED = 35
TOO_MANY_REDIRECTS = 47
GOT_NOTHING = 52
RECEIVE_ERROR = 56
NOT_TRUSTED = 60
BAD_AUTHORITIES = 77


def curl_text(code):
    library = ctypes.CDLL("libcurl.so.4")
    library.curl_easy_strerror.restype = ctypes.c_char_p
    return library.curl_easy_strerror(code).decode()


def curl_texts():
    """All of the above by their names in small letters."""
    return {name.lower(): curl_text(code) for name, code in globals().items() if isinstance(code, int)}
