#pragma once

#include "json/characters.h"

namespace json {

/// The type of a value, judged from the first character of its text alone.
enum class jtype { jstring = 0, jnumber = 1, jobject = 2, jarray = 3, jbool = 4, jnull = 5, not_valid = 6 };

/// The type that a value starting with this character has: "nope" counts as null here, only the reader looks further.
inline jtype type_of(char first) {
  switch (first) {
    case '"':
      return jtype::jstring;
    case '-':
    case '0':
    case '1':
    case '2':
    case '3':
    case '4':
    case '5':
    case '6':
    case '7':
    case '8':
    case '9':
      return jtype::jnumber;
    case '{':
      return jtype::jobject;
    case '[':
      return jtype::jarray;
    case 't':
    case 'f':
      return jtype::jbool;
    case 'n':
      return jtype::jnull;
    default:
      return jtype::not_valid;
  }
}

/// Skips leading white space, then judges the first character left; the end of the text is not_valid.
inline jtype type_of_text(const char* text) {
  return type_of(*skip_whitespace(text));
}

}  // namespace json
