#ifndef SSOCLIENT_JSON_TOKENS_H
#define SSOCLIENT_JSON_TOKENS_H

/* The tokens of JSON text, which reaches from p to before `end` and need not end with a NUL. */

/* Where white space that begins at p ends. */
const char* ssoclient_json_skip_space(const char* p, const char* end);

/* Where the string that begins with the quote at p ends, or a null pointer when it is none. */
const char* ssoclient_json_scan_string(const char* p, const char* end);

/* The same for a string, number, true, false or null. */
const char* ssoclient_json_scan_scalar(const char* p, const char* end);

/* The value of the four hexadecimal digits at p, or -1. */
long ssoclient_json_hex_quad(const char* p, const char* end);

#endif
