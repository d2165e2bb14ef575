#pragma once

#include <array>
#include <cstddef>

namespace json {

// What a character is to JSON, as the "C" locale has it and whatever the signedness of char, and how far runs of such
// characters reach in a NUL-terminated text.

inline bool is_whitespace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

/// The first character that is not white space, or the terminating NUL.
inline const char* skip_whitespace(const char* text) {
  while (is_whitespace(*text)) {
    ++text;
  }
  return text;
}

/// For this library alone.
namespace characters {

/// A set of characters that is looked up in one step.
class character_set {
 public:
  constexpr explicit character_set(const char* members) {
    for (; *members != '\0'; ++members) {
      flags[static_cast<unsigned char>(*members)] = true;
    }
  }

  constexpr character_set complement() const {
    character_set others("");
    for (std::size_t index = 0; index < flags.size(); ++index) {
      others.flags[index] = !flags[index];
    }
    return others;
  }

  constexpr character_set with_nul() const {
    character_set more = *this;
    more.flags[0] = true;
    return more;
  }

  constexpr bool has(char c) const { return flags[static_cast<unsigned char>(c)]; }

  /// The first character of the text that is a member; one has to be, such as the terminating NUL.
  const char* find(const char* text) const {
    while (!has(*text)) {
      ++text;
    }
    return text;
  }

 private:
  std::array<bool, 256> flags{};
};

inline constexpr character_set NOTHING("");

/// What ends a run of characters that a string literal holds as they are.
inline constexpr character_set STRING_MARKS("\"\\");
inline constexpr character_set STRING_ENDS = STRING_MARKS.with_nul();

inline bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

inline bool is_hex_digit(char c) {
  return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

inline bool is_exponent_mark(char c) {
  return c == 'e' || c == 'E';
}

/// What may stand behind a backslash. Kept: the slash, which the writer escapes, is not among these.
inline bool is_escape_letter(char c) {
  static constexpr character_set LETTERS("\"\\bfnrtu");
  return LETTERS.has(c);
}

inline const char* skip_digits(const char* text) {
  while (is_digit(*text)) {
    ++text;
  }
  return text;
}

}  // namespace characters
}  // namespace json
