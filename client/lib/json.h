#ifndef SSOCLIENT_JSON_H
#define SSOCLIENT_JSON_H

#include <stdbool.h>
#include <stddef.h>

#include "ssoclient.h"

/* Finds its way in JSON text (RFC 8259) without building a document. The service's own JSON library is not used here:
 * it refuses "\/" in strings and drops "\u" escapes, so it cannot read every reply, and it is C++.
 *
 * One thing is taken that the RFC forbids: control characters in strings. The service does not escape those that have
 * no short escape, so its messages may hold them. */

/* A value's text within a larger one that somebody else owns, without white space around it. */
struct ssoclient_json {
  const char* begin;
  const char* end;
};

/* The value that the text begins with, and where the text goes on behind it and behind white space. All other functions
 * rely on values that come from here, directly or by way of each other. Memory and time grow in step with the length,
 * whatever the nesting; nothing is recursive.
 * SSOCLIENT_MALFORMED_REPLY: the text is no JSON. SSOCLIENT_OUT_OF_MEMORY. */
enum ssoclient_status ssoclient_json_parse(const char* text, size_t length, struct ssoclient_json* value,
                                           const char** rest);

bool ssoclient_json_is_object(struct ssoclient_json value);
bool ssoclient_json_is_array(struct ssoclient_json value);
bool ssoclient_json_is_string(struct ssoclient_json value);
bool ssoclient_json_is_number(struct ssoclient_json value);

/* The member of an object; its name in the text may be written with escapes. Returns how many members have that name;
 * value is the last of them. 0 as well when the value is no object. */
size_t ssoclient_json_member(struct ssoclient_json object, const char* name, struct ssoclient_json* value);

/* The first element of an array; false when it has none or the value is no array. */
bool ssoclient_json_first_element(struct ssoclient_json array, struct ssoclient_json* value);

/* Writes the text of a string, with its escapes undone and a NUL behind it, to a buffer of at least the string's size.
 * False when it cannot be a C string of UTF-8: it holds a NUL, or half of a surrogate pair. */
bool ssoclient_json_decode(struct ssoclient_json string, char* buffer);

/* Whether the string's text, with its escapes undone, is this one. */
bool ssoclient_json_equals(struct ssoclient_json string, const char* text);

#endif
