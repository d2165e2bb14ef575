#include "support/JsonDocumentModel.h"

#include "support/JsonReaderModel.h"

namespace test {
namespace {

using json::jtype;
using json::parsing_error;

const char* skipSpace(const char* p) {
  while (*p != '\0' && modelIsSpace(*p)) {
    ++p;
  }
  return p;
}

parsing_error notAnObject() {
  return parsing_error("Input is not a valid object");
}

/// Appends like operator+=: the three tests in their order.
void append(DocumentModel& document, const std::string& key, const std::string& value) {
  for (const auto& entry : document.entries) {
    if (!document.array && entry.first == key) {
      throw parsing_error("Key conflict");
    }
  }
  if (document.array && !key.empty()) {
    throw parsing_error("Array cannot have key");
  }
  if (!document.array && key.empty()) {
    throw parsing_error("Missing key");
  }
  document.entries.emplace_back(key, value);
}

}  // namespace

json::parse_results modelParseValue(const char* input) {
  const char* p = skipSpace(input);
  if (*p == '\0') {
    throw parsing_error("Input was only whitespace");
  }
  json::parse_results results;
  ReaderModel reader;
  while (*p != '\0' && reader.push(*p) != json::reader::REJECTED) {
    ++p;
  }
  results.remainder = p;
  if (reader.isValid()) {
    results.value = reader.readout();
    results.type = reader.type();
  }
  return results;
}

std::string modelDecodeString(const char* literal) {
  if (literal[0] != '"') {
    throw parsing_error("Expecting opening quote");
  }
  static const std::string letters = "\"/\\bfnrt";
  static const std::string bytes = "\"/\\\b\f\n\r\t";
  std::string plain;
  bool escape = false;
  for (const char* p = literal + 1; escape || (*p != '"' && *p != '\0'); ++p) {
    if (!escape && *p == '\\') {
      escape = true;
      continue;
    }
    if (!escape) {
      plain += *p;
      continue;
    }
    escape = false;
    if (*p == 'u') {
      for (int skipped = 0; skipped < 4 && p[1] != '\0'; ++skipped) {
        ++p;
      }
      continue;
    }
    const std::size_t index = letters.find(*p);
    if (index == std::string::npos) {
      throw parsing_error("Expected control character");
    }
    plain += bytes[index];
  }
  return plain;
}

std::vector<std::string> modelParseArray(const char* input) {
  const char* p = skipSpace(input);
  if (*p != '[') {
    throw parsing_error("Input was not an array");
  }
  std::vector<std::string> elements;
  p = skipSpace(p + 1);
  if (*p == ']') {
    return elements;
  }
  while (*p != '\0') {
    p = skipSpace(p);
    const json::parse_results element = modelParseValue(p);
    if (element.type == jtype::not_valid) {
      throw parsing_error("Input was not properly formated");
    }
    elements.push_back(element.type == jtype::jstring ? modelDecodeString(element.value.c_str()) : element.value);
    p = skipSpace(element.remainder);
    if (*p == ']') {
      break;
    }
    if (*p == ',') {
      ++p;
    }
  }
  if (*p == ']') {
    return elements;
  }
  throw parsing_error("Input was not properly formated");
}

DocumentModel modelParse(const char* input) {
  const char* p = skipSpace(input);
  DocumentModel document;
  if (*p == '[') {
    document.array = true;
  } else if (*p != '{') {
    throw notAnObject();
  }
  const char closing = document.array ? ']' : '}';
  p = skipSpace(p + 1);
  if (*p == '\0') {
    throw notAnObject();
  }
  while (*p != '\0' && *p != closing) {
    std::string key;
    if (!document.array) {
      const json::parse_results parsedKey = modelParseValue(p);
      if (parsedKey.type != jtype::jstring || parsedKey.value.empty()) {
        throw notAnObject();
      }
      key = modelDecodeString(parsedKey.value.c_str());
      p = skipSpace(parsedKey.remainder);
      if (*p != ':') {
        throw notAnObject();
      }
      ++p;
    }
    p = skipSpace(p);
    const json::parse_results value = modelParseValue(p);
    if (value.type == jtype::not_valid) {
      throw notAnObject();
    }
    p = skipSpace(value.remainder);
    if (*p != ',' && *p != closing) {
      throw notAnObject();
    }
    if (*p == ',') {
      ++p;
    }
    append(document, key, value.value);
  }
  if (*p != closing) {
    throw notAnObject();
  }
  return document;
}

}  // namespace test
