#include "json/codec.h"

#include <cstring>

#include "json/characters.h"
#include "json/errors.h"
#include "json/scanner.h"

namespace json {

using namespace characters;

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

/// What is written with a backslash. Kept: the slash is, although the reader refuses its escape.
constexpr character_set ESCAPED = character_set("\"/\\\b\f\n\r\t").with_nul();

/// The letter that stands for such a character behind the backslash.
char escape_letter(char escaped) {
  switch (escaped) {
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
      return escaped;
  }
}

}  // namespace

parse_results parse_value(const char* input) {
  scanner value_scanner;
  parse_results result;
  result.type = value_scanner.read(input);
  result.remainder = value_scanner.end();
  if (result.type != jtype::not_valid) {
    result.value = value_scanner.text();
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
  const char* begin = literal + 1;
  const char* end = STRING_ENDS.find(begin);
  std::string plain(begin, end);
  while (*end == '\\') {
    begin = decode_escape(end + 1, plain);
    end = STRING_ENDS.find(begin);
    plain.append(begin, static_cast<std::size_t>(end - begin));
  }
  return plain;
}

std::string escape_string(const char* text) {
  std::string literal;
  literal.reserve(std::strlen(text) + std::strlen("\"\""));
  literal += '"';
  for (;;) {
    const char* end = ESCAPED.find(text);
    literal.append(text, static_cast<std::size_t>(end - text));
    if (*end == '\0') {
      break;
    }
    literal += '\\';
    literal += escape_letter(*end);
    text = end + 1;
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
