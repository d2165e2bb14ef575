#pragma once

#include <string>

namespace test {

/// Whether a text is a random UUID (RFC 4122, version 4) in lower case. Without std::regex, about which compilers warn
/// under the address sanitizer.
inline bool hasUuidForm(const std::string& text) {
  const auto isDigit = [](char character) {
    return std::string("0123456789abcdef").find(character) != std::string::npos;
  };
  std::string form = text;
  for (char& character : form) {
    character = isDigit(character) ? 'x' : character;
  }
  return form == "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" && text[14] == '4' &&
         std::string("89ab").find(text[19]) != std::string::npos;
}

}  // namespace test
