#include "json.h"

#include <stdlib.h>
#include <string.h>

#include "json_tokens.h"

/* ---- Validation ---- */

enum expected { VALUE, VALUE_OR_END, KEY, KEY_OR_END, COLON, COMMA_OR_END };

struct validator {
  enum expected next;
  char* closing; /* the closing bracket of each open container, outermost first */
  size_t depth;
};

static bool in_object(const struct validator* state) {
  return state->closing[state->depth - 1] == '}';
}

static bool may_close(enum expected next) {
  return next == VALUE_OR_END || next == KEY_OR_END || next == COMMA_OR_END;
}

static const char* scan_value_or_opening(struct validator* state, const char* p, const char* end) {
  if (*p != '{' && *p != '[') {
    state->next = COMMA_OR_END;
    return ssoclient_json_scan_scalar(p, end);
  }
  state->next = *p == '{' ? KEY_OR_END : VALUE_OR_END;
  state->closing[state->depth++] = *p == '{' ? '}' : ']';
  return p + 1;
}

static const char* scan_token(struct validator* state, const char* p, const char* end) {
  if (may_close(state->next) && *p == state->closing[state->depth - 1]) {
    --state->depth;
    state->next = COMMA_OR_END;
    return p + 1;
  }
  switch (state->next) {
    case VALUE:
    case VALUE_OR_END:
      return scan_value_or_opening(state, p, end);
    case KEY:
    case KEY_OR_END:
      state->next = COLON;
      return *p == '"' ? ssoclient_json_scan_string(p, end) : NULL;
    case COLON:
      state->next = VALUE;
      return *p == ':' ? p + 1 : NULL;
    case COMMA_OR_END:
      state->next = in_object(state) ? KEY : VALUE;
      return *p == ',' ? p + 1 : NULL;
  }
  return NULL;
}

/* Where the value that begins at p ends, or a null pointer. */
static const char* scan_value(const char* p, const char* end, char* closing) {
  struct validator state = {VALUE, closing, 0};
  do {
    p = ssoclient_json_skip_space(p, end);
    p = p == end ? NULL : scan_token(&state, p, end);
  } while (p && state.depth > 0);
  return p;
}

enum ssoclient_status ssoclient_json_parse(const char* text, size_t length, struct ssoclient_json* value,
                                           const char** rest) {
  const char* const end = text + length;
  char* const closing = malloc(length + 1); /* a container for each character, at the worst */
  if (!closing) {
    return SSOCLIENT_OUT_OF_MEMORY;
  }
  value->begin = ssoclient_json_skip_space(text, end);
  value->end = scan_value(value->begin, end, closing);
  free(closing);
  if (!value->end) {
    return SSOCLIENT_MALFORMED_REPLY;
  }
  *rest = ssoclient_json_skip_space(value->end, end);
  return SSOCLIENT_OK;
}

bool ssoclient_json_is_object(struct ssoclient_json value) {
  return *value.begin == '{';
}

bool ssoclient_json_is_array(struct ssoclient_json value) {
  return *value.begin == '[';
}

bool ssoclient_json_is_string(struct ssoclient_json value) {
  return *value.begin == '"';
}

bool ssoclient_json_is_number(struct ssoclient_json value) {
  return strchr("-0123456789", *value.begin) != NULL;
}

/* ---- Finding the way. The text is known to be valid here, so that brackets need only be counted. ---- */

/* Where the token or bracket that begins at p ends. */
static const char* skip_token(const char* p, const char* end) {
  return strchr("{}[]:,", *p) ? p + 1 : ssoclient_json_scan_scalar(p, end);
}

static struct ssoclient_json value_at(const char* p, const char* end) {
  struct ssoclient_json value = {ssoclient_json_skip_space(p, end), NULL};
  size_t depth = 0;
  p = value.begin;
  do {
    p = ssoclient_json_skip_space(p, end);
    if (*p == '{' || *p == '[') {
      ++depth;
    } else if (*p == '}' || *p == ']') {
      --depth;
    }
    p = skip_token(p, end);
  } while (depth > 0);
  value.end = p;
  return value;
}

size_t ssoclient_json_member(struct ssoclient_json object, const char* name, struct ssoclient_json* value) {
  const char* const end = object.end;
  size_t found = 0;
  if (!ssoclient_json_is_object(object)) {
    return 0;
  }
  const char* p = ssoclient_json_skip_space(object.begin + 1, end);
  while (*p != '}') {
    const struct ssoclient_json key = value_at(p, end);
    const struct ssoclient_json member = value_at(ssoclient_json_skip_space(key.end, end) + 1, end);
    if (ssoclient_json_equals(key, name)) {
      *value = member;
      ++found;
    }
    p = ssoclient_json_skip_space(member.end, end);
    if (*p == ',') {
      p = ssoclient_json_skip_space(p + 1, end);
    }
  }
  return found;
}

bool ssoclient_json_first_element(struct ssoclient_json array, struct ssoclient_json* value) {
  if (!ssoclient_json_is_array(array) || *ssoclient_json_skip_space(array.begin + 1, array.end) == ']') {
    return false;
  }
  *value = value_at(array.begin + 1, array.end);
  return true;
}
