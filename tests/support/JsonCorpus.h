#pragma once

#include <vector>

namespace test {

/// A text, the value that is read from its beginning (compact; empty when there is no complete one) and the text that
/// is left: from the first character that does not belong to the value.
struct JsonSample {
  const char* text;
  const char* value;
  const char* rest;
};

/// Small texts, right ones and wrong ones, that between them use every rule of the reader.
const std::vector<JsonSample>& jsonSamples();

}  // namespace test
