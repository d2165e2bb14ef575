#pragma once

#include <string>
#include <utility>
#include <vector>

#include "json/json.h"

namespace test {

// How texts are split into values, written down step by step on top of ReaderModel, one character at a time: what the
// functions of the same names in the JSON library are compared with.

json::parse_results modelParseValue(const char* input);
std::vector<std::string> modelParseArray(const char* input);
std::string modelDecodeString(const char* literal);

/// A parsed document: its kind and, in order, its keys and value texts.
struct DocumentModel {
  bool array = false;
  std::vector<std::pair<std::string, std::string>> entries;
};

DocumentModel modelParse(const char* input);

}  // namespace test
