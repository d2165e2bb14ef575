#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "json/jtype.h"

namespace json {

/// Splits values off NUL-terminated texts. Finds the same values as a reader that is fed one character at a time,
/// except that the terminating NUL ends a string literal's body too; but takes runs of characters at once and copies
/// nothing that is not asked for. Its buffers serve one value after the other.
class scanner {
 public:
  /// Reads one value, leading white space skipped, and returns its type; not_valid for an incomplete or malformed one.
  /// Throws parsing_error "Input was only whitespace" when there is no character to read.
  jtype read(const char* input);

  /// The first character of what was read.
  const char* begin() const { return first; }

  /// The first character that does not belong to it.
  const char* end() const { return position; }

  /// The compact text of the complete value that was read last, while its source is still there.
  std::string text() const;

 private:
  bool read_value();
  bool read_scalar();
  bool open_container();
  bool next_value();
  bool read_key();
  bool read_string();
  bool read_escape();
  bool read_number();
  bool read_digits();
  bool read_word(const char* word);
  void drop_whitespace();

  const char* first = nullptr;
  const char* position = nullptr;
  const char* kept = nullptr;         // from here on nothing is in compact yet
  std::string compact;                // the value's beginning, if white space was dropped from it
  std::vector<char> open_containers;  // closing bracket of each container around position, outermost first
};

}  // namespace json
