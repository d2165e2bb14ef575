#include "json/codec.h"

#include "json/errors.h"
#include "json/reader.h"

namespace json {
namespace {

/// Decodes the escape that starts at this character (the one behind the backslash), appends what it stands for and
/// returns the position behind it.
const char* decode_escape(const char* escape, std::string& plain) {
  switch (*escape) {
    case '"':
    case '/':
    case '\\':
      plain += *escape;
      return escape + 1;
    case 'b':
      plain += '\b';
      return escape + 1;
    case 'f':
      plain += '\f';
      return escape + 1;
    case 'n':
      plain += '\n';
      return escape + 1;
    case 'r':
      plain += '\r';
      return escape + 1;
    case 't':
      plain += '\t';
      return escape + 1;
    case 'u': {
      // Kept: a \uXXXX escape is dropped, not decoded. A text that ends inside one ends the walk.
      const char* next = escape + 1;
      for (int digits = 0; digits < 4 && *next != '\0'; ++digits) {
        ++next;
      }
      return next;
    }
    default:
      throw parsing_error("Expected control character");
  }
}

/// The letter that escapes this byte behind a backslash, or NUL for a byte that is written as it is.
char escape_letter(char byte) {
  switch (byte) {
    case '"':
    case '/':  // Kept: always escaped on output, although the reader refuses the escape.
    case '\\':
      return byte;
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    default:
      return '\0';
  }
}

}  // namespace

parse_results parse_value(const char* input) {
  const char* begin = skip_whitespace(input);
  if (*begin == '\0') {
    throw parsing_error("Input was only whitespace");
  }
  parse_results result;
  reader value_reader;
  result.remainder = value_reader.push_text(begin);
  if (value_reader.is_valid()) {
    result.type = value_reader.type();
    result.value = value_reader.take_text();
  }
  return result;
}

std::vector<std::string> parse_array(const char* input) {
  const char* position = skip_whitespace(input);
  if (*position != '[') {
    throw parsing_error("Input was not an array");
  }
  std::vector<std::string> elements;
  position = skip_whitespace(position + 1);
  if (*position == ']') {
    return elements;
  }
  while (*position != '\0') {
    const parse_results element = parse_value(position);
    if (element.type == jtype::not_valid) {
      break;
    }
    elements.push_back(element.type == jtype::jstring ? decode_string(element.value.c_str()) : element.value);
    position = skip_whitespace(element.remainder);
    if (*position == ']') {
      return elements;
    }
    if (*position == ',') {
      ++position;
    }
    // Kept: any other character goes on as well, so [1 2] has two elements.
  }
  throw parsing_error("Input was not properly formated");
}

std::string decode_string(const char* literal) {
  if (*literal != '"') {
    throw parsing_error("Expecting opening quote");
  }
  std::string plain;
  const char* position = literal + 1;
  while (*position != '"' && *position != '\0') {
    if (*position == '\\') {
      position = decode_escape(position + 1, plain);
    } else {
      plain += *position;
      ++position;
    }
  }
  return plain;
}

std::string escape_string(const char* text) {
  std::string literal = "\"";
  for (; *text != '\0'; ++text) {
    const char letter = escape_letter(*text);
    if (letter != '\0') {
      literal += '\\';
      literal += letter;
    } else {
      literal += *text;
    }
  }
  literal += '"';
  return literal;
}

std::string read_digits(const char* text) {
  const char* begin = skip_whitespace(text);
  const char* end = begin;
  while (*end >= '0' && *end <= '9') {
    ++end;
  }
  return std::string(begin, end);
}

}  // namespace json
