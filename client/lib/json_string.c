#include <string.h>

#include "json.h"
#include "json_tokens.h"

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
  unsigned long code_point = (unsigned long)ssoclient_json_hex_quad(*p, end);
  *p += 4;
  if (is_high_surrogate((long)code_point)) {
    const long low = (*p)[0] == '\\' && (*p)[1] == 'u' ? ssoclient_json_hex_quad(*p + 2, end) : -1;
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
