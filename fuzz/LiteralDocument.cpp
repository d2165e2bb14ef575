#include "LiteralDocument.h"

#include <cstddef>
#include <exception>

namespace fuzz {

using json::jtype;

const std::string* findMember(const DocumentModel& document, const std::string& key) {
  if (!document.array) {
    for (const auto& entry : document.entries) {
      if (entry.first == key) {
        return &entry.second;
      }
    }
  }
  return nullptr;
}

jtype literalType(const std::string& value) {
  return test::modelParseValue(value.c_str()).type;
}

bool hasMember(const DocumentModel& document, const std::string& key, jtype type) {
  const std::string* const value = findMember(document, key);
  return value != nullptr && literalType(*value) == type;
}

bool hasContainer(const DocumentModel& document, const std::string& key) {
  return hasMember(document, key, jtype::jobject) || hasMember(document, key, jtype::jarray);
}

std::string literalText(const std::string& value) {
  return !value.empty() && value.front() == '"' ? test::modelDecodeString(value.c_str()) : value;
}

std::string memberText(const DocumentModel& document, const std::string& key) {
  return literalText(*findMember(document, key));
}

DocumentModel memberDocument(const DocumentModel& document, const std::string& key) {
  return test::modelParse(findMember(document, key)->c_str());
}

std::string literalEscape(const std::string& text) {
  static const std::string bytes = "\"/\\\b\f\n\r\t";
  static const std::string letters = "\"/\\bfnrt";
  std::string literal = "\"";
  for (const char* c = text.c_str(); *c != '\0'; ++c) {
    const std::size_t index = bytes.find(*c);
    if (index != std::string::npos) {
      literal += '\\';
    }
    literal += index != std::string::npos ? letters[index] : *c;
  }
  return literal + '"';
}

std::string writeLiterally(const DocumentModel& document) {
  std::string text;
  for (const auto& entry : document.entries) {
    text += (document.array ? "" : literalEscape(entry.first) + ":") + entry.second + ",";
  }
  if (!text.empty()) {
    text.pop_back();
  }
  return (document.array ? "[" : "{") + text + (document.array ? "]" : "}");
}

std::string outcomeOf(const std::function<std::string()>& function) {
  try {
    return function();
  } catch (const std::exception& thrown) {
    return std::string("threw ") + thrown.what();
  }
}

}  // namespace fuzz
