#pragma once

#include <string>
#include <vector>

/// A JSON library's way from a text to a document. Each call parses the text, has the document whole and destroys it.
/// It throws, whatever the library, when that refuses the text.
struct Library {
  const char* name;
  bool keepsDocument;  ///< false: reads the text and keeps nothing
  void (*parse)(const std::string& text);
  void (*parseDeep)(const std::string& text);  ///< for nesting beyond a stack; null: there is no way
};

/// This library first, then its rivals.
const std::vector<Library>& libraries();
