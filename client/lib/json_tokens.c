#include "json_tokens.h"

#include <stdbool.h>
#include <stddef.h>
#include <string.h>

const char* ssoclient_json_skip_space(const char* p, const char* end) {
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

long ssoclient_json_hex_quad(const char* p, const char* end) {
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

const char* ssoclient_json_scan_string(const char* p, const char* end) {
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
      if (ssoclient_json_hex_quad(p + 1, end) < 0) {
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

const char* ssoclient_json_scan_scalar(const char* p, const char* end) {
  switch (*p) {
    case '"':
      return ssoclient_json_scan_string(p, end);
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
