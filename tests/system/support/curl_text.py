"""libcurl's own texts, which the service passes on and which differ between versions of the library."""

import ctypes

UNSUPPORTED_PROTOCOL = 1
COULD_NOT_CONNECT = 7
PARTIAL_FILE = 18
TIMED_OUT = 28
TOO_MANY_REDIRECTS = 47
GOT_NOTHING = 52
RECEIVE_ERROR = 56


def curl_text(code):
    library = ctypes.CDLL("libcurl.so.4")
    library.curl_easy_strerror.restype = ctypes.c_char_p
    return library.curl_easy_strerror(code).decode()
