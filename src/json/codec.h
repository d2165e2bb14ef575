#pragma once

#include <string>
#include <vector>

#include "json/jtype.h"

namespace json {

/// One value split off a text.
struct parse_results {
  jtype type = jtype::not_valid;
  std::string value;                ///< compact text of the value; empty when not_valid
  const char* remainder = nullptr;  ///< the first character that does not belong to the value
};

/// Reads one value from a NUL-terminated text, leading white space skipped. An incomplete or malformed value comes back
/// as not_valid. Throws parsing_error "Input was only whitespace" when there is no character to read.
parse_results parse_value(const char* input);

/// Splits an array's text into its element texts, strings decoded. Elements parted by white space alone are accepted.
/// Throws parsing_error "Input was not an array" or "Input was not properly formated".
std::vector<std::string> parse_array(const char* input);

/// Plain text of a JSON string literal; whatever follows the closing quote is ignored, \uXXXX escapes are dropped.
/// Throws parsing_error "Expecting opening quote" or "Expected control character".
std::string decode_string(const char* literal);

/// The JSON string literal for a plain text: quotes, slashes, backslashes and \b \f \n \r \t are escaped, other bytes
/// stay as they are.
std::string escape_string(const char* text);

/// Skips leading white space and returns the digits that follow, none giving the empty text.
std::string read_digits(const char* text);

}  // namespace json
