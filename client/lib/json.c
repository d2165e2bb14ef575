#include "json.h"

#include <stdlib.h>
#include <string.h>

/* ---- Tokens. A scan function returns where the token that begins at p ends, or a null pointer when it is none. ----
 */

static const char* skip_space(const char* p, const char* end) {
  while (p < end && (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r')) {
    ++p;
  }
  return p;
}

static bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

/* The value of a hexadecimal digit, or -1. */
static int hex_digit(char c) {
  if (is_digit(c)) {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

/* The value of four hexadecimal digits, or -1. */
static long hex_quad(const char* p, const char* end) {
  long unit = 0;
  if (end - p < 4) {
    return -1;
  }
  for (int i = 0; i < 4; ++i) {
    const int digit = hex_digit(p[i]);
    if (digit < 0) {
      return -1;
    }
    unit = unit * 16 + digit;
  }
  return unit;
}

static const char* scan_string(const char* p, const char* end) {
  for (++p; p < end; ++p) {
    if (*p == '"') {
      return p + 1;
    }
    if (*p != '\\') {
      continue;
    }
    if (++p == end || !strchr("\"\\/bfnrtu", *p) || *p == '\0') {
      return NULL;
    }
    if (*p == 'u') {
      if (hex_quad(p + 1, end) < 0) {
        return NULL;
      }
      p += 4;
    }
  }
  return NULL;
}

static const char* scan_digits(const char* p, const char* end) {
  if (p == end || !is_digit(*p)) {
    return NULL;
  }
  while (p < end && is_digit(*p)) {
    ++p;
  }
  return p;
}

static const char* scan_number(const char* p, const char* end) {
  if (*p == '-') {
    ++p;
  }
  p = p < end && *p == '0' ? p + 1 : scan_digits(p, end);
  if (p && p < end && *p == '.') {
    p = scan_digits(p + 1, end);
  }
  if (p && p < end && (*p == 'e' || *p == 'E')) {
    ++p;
    if (p < end && (*p == '+' || *p == '-')) {
      ++p;
    }
    p = scan_digits(p, end);
  }
  return p;
}

static const char* scan_word(const char* p, const char* end, const char* word) {
  const size_t length = strlen(word);
  return (size_t)(end - p) >= length && memcmp(p, word, length) == 0 ? p + length : NULL;
}

static const char* scan_scalar(const char* p, const char* end) {
  switch (*p) {
    case '"':
      return scan_string(p, end);
    case 't':
      return scan_word(p, end, "true");
    case 'f':
      return scan_word(p, end, "false");
    case 'n':
      return scan_word(p, end, "null");
    default:
      return scan_number(p, end);
  }
}

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
    return scan_scalar(p, end);
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
      return *p == '"' ? scan_string(p, end) : NULL;
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
    p = skip_space(p, end);
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
  value->begin = skip_space(text, end);
  value->end = scan_value(value->begin, end, closing);
  free(closing);
  if (!value->end) {
    return SSOCLIENT_MALFORMED_REPLY;
  }
  *rest = skip_space(value->end, end);
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
  return *value.begin == '-' || is_digit(*value.begin);
}

/* ---- Finding the way. The text is known to be valid here, so that brackets need only be counted. ---- */

/* Where the token or bracket that begins at p ends. */
static const char* skip_token(const char* p, const char* end) {
  return strchr("{}[]:,", *p) ? p + 1 : scan_scalar(p, end);
}

static struct ssoclient_json value_at(const char* p, const char* end) {
  struct ssoclient_json value = {skip_space(p, end), NULL};
  size_t depth = 0;
  p = value.begin;
  do {
    p = skip_space(p, end);
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
  const char* p = skip_space(object.begin + 1, end);
  while (*p != '}') {
    const struct ssoclient_json key = value_at(p, end);
    const struct ssoclient_json member = value_at(skip_space(key.end, end) + 1, end);
    if (ssoclient_json_equals(key, name)) {
      *value = member;
      ++found;
    }
    p = skip_space(member.end, end);
    if (*p == ',') {
      p = skip_space(p + 1, end);
    }
  }
  return found;
}

bool ssoclient_json_first_element(struct ssoclient_json array, struct ssoclient_json* value) {
  if (!ssoclient_json_is_array(array) || *skip_space(array.begin + 1, array.end) == ']') {
    return false;
  }
  *value = value_at(array.begin + 1, array.end);
  return true;
}

/* ---- Strings ---- */

/* The most that one character takes in UTF-8. */
#define MAX_CHARACTER_BYTES 4

static bool is_high_surrogate(long unit) {
  return unit >= 0xd800 && unit <= 0xdbff;
}

static bool is_low_surrogate(long unit) {
  return unit >= 0xdc00 && unit <= 0xdfff;
}

/* Writes a code point as UTF-8 (RFC 3629 section 3) and returns how many bytes it took. */
static size_t encode_utf8(unsigned long code_point, char* bytes) {
  static const struct {
    unsigned long limit;
    unsigned char lead;
  } forms[MAX_CHARACTER_BYTES] = {{0x80, 0x00}, {0x800, 0xc0}, {0x10000, 0xe0}, {0x110000, 0xf0}};
  size_t length = 1;
  while (code_point >= forms[length - 1].limit) {
    ++length;
  }
  for (size_t i = length - 1; i > 0; --i) {
    bytes[i] = (char)(0x80 | (code_point & 0x3f));
    code_point >>= 6;
  }
  bytes[0] = (char)(forms[length - 1].lead | code_point);
  return length;
}

/* Decodes the escape behind "\u" at *p, with the second half of its surrogate pair, and moves *p behind it. 0 when it
 * is a NUL or half of a pair. */
static size_t decode_unicode(const char** p, const char* end, char* bytes) {
  unsigned long code_point = (unsigned long)hex_quad(*p, end);
  *p += 4;
  if (is_high_surrogate((long)code_point)) {
    const long low = end - *p >= 6 && (*p)[0] == '\\' && (*p)[1] == 'u' ? hex_quad(*p + 2, end) : -1;
    if (!is_low_surrogate(low)) {
      return 0;
    }
    *p += 6;
    code_point = 0x10000 + ((code_point - 0xd800) << 10) + ((unsigned long)low - 0xdc00);
  } else if (is_low_surrogate((long)code_point) || code_point == 0) {
    return 0;
  }
  return encode_utf8(code_point, bytes);
}

/* Decodes the character at *p and moves *p behind it. Returns how many bytes it takes; 0 when it has no place in a C
 * string of UTF-8. */
static size_t decode_character(const char** p, const char* end, char* bytes) {
  static const char escapes[] = "\"\\/bfnrt";
  static const char meanings[] = "\"\\/\b\f\n\r\t";
  char c = *(*p)++;
  if (c == '\\') {
    c = *(*p)++;
    if (c == 'u') {
      return decode_unicode(p, end, bytes);
    }
    c = meanings[strchr(escapes, c) - escapes];
  }
  bytes[0] = c;
  return c == '\0' ? 0 : 1;
}

bool ssoclient_json_decode(struct ssoclient_json string, char* buffer) {
  const char* const end = string.end - 1;
  for (const char* p = string.begin + 1; p < end;) {
    char character[MAX_CHARACTER_BYTES];
    const size_t length = decode_character(&p, end, character);
    if (length == 0) {
      return false;
    }
    memcpy(buffer, character, length);
    buffer += length;
  }
  *buffer = '\0';
  return true;
}

bool ssoclient_json_equals(struct ssoclient_json string, const char* text) {
  const char* const end = string.end - 1;
  for (const char* p = string.begin + 1; p < end;) {
    char character[MAX_CHARACTER_BYTES];
    const size_t length = decode_character(&p, end, character);
    if (length == 0 || strncmp(text, character, length) != 0) {
      return false;
    }
    text += length;
  }
  return *text == '\0';
}
