#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

/// A JSON value read literally by the grammar of RFC 8259: what the other readers are compared with. Control characters
/// in strings are taken, since the service writes them.
struct LiteralJson {
  std::string_view text;             ///< within the text that was read, without white space around it
  std::optional<std::string> plain;  ///< a string's text with its escapes undone, if that can be a C string of UTF-8
  std::vector<LiteralJson> parts;    ///< an array's elements; an object's keys, each followed by its value
};

enum class Verdict { VALID, INVALID, TOO_DEEP };

/// Reads a text that is to be one value and white space. A text nested deeper than MAX_DEPTH before it turns out
/// invalid is TOO_DEEP: the depth of a value is call depth here.
Verdict readLiterally(std::string_view text, LiteralJson& value);

constexpr int MAX_DEPTH = 500;

}  // namespace fuzz
