#include "json/jtype.h"

#include <cctype>

namespace json {

jtype type_of(char first) {
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

jtype type_of_text(const char* text) {
  return type_of(*skip_whitespace(text));
}

bool is_whitespace(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

const char* skip_whitespace(const char* text) {
  while (is_whitespace(*text)) {
    ++text;
  }
  return text;
}

}  // namespace json
