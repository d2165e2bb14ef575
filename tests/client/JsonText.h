#pragma once

#include <algorithm>
#include <memory>
#include <optional>
#include <string>

extern "C" {
#include "client/lib/json.h"
}

namespace test {

inline std::string textOf(const ssoclient_json& value) {
  return {value.begin, value.end};
}

/// A text and what the client's parser makes of it. The text is in memory that ends with it, so that the address
/// sanitizer sees every look behind it.
class JsonText {
 public:
  explicit JsonText(const std::string& text) : size(text.size()), bytes(std::make_unique<char[]>(size)) {
    std::copy(text.begin(), text.end(), bytes.get());
    status = ssoclient_json_parse(bytes.get(), size, &root, &restBegin);
  }

  /// Whether the text begins with a value.
  bool hasValue() const { return status == SSOCLIENT_OK; }

  /// Whether the text is one value, with or without white space around it.
  bool isValue() const { return hasValue() && rest().empty(); }

  const ssoclient_json& value() const { return root; }
  std::string valueText() const { return hasValue() ? textOf(root) : "none"; }
  std::string rest() const { return hasValue() ? std::string(restBegin, end()) : "none"; }

  /// The member's text if the value is an object with exactly one of that name.
  std::optional<std::string> member(const char* name) const {
    ssoclient_json found{};
    return ssoclient_json_member(root, name, &found) == 1 ? std::optional(textOf(found)) : std::nullopt;
  }

 private:
  const char* end() const { return bytes.get() + size; }

  std::size_t size;
  std::unique_ptr<char[]> bytes;
  ssoclient_status status = SSOCLIENT_OK;
  ssoclient_json root{};
  const char* restBegin = nullptr;
};

/// The text of a string, nothing when it cannot be a C string. The buffer is as small as is allowed.
inline std::optional<std::string> decoded(const ssoclient_json& string) {
  const auto buffer = std::make_unique<char[]>(static_cast<std::size_t>(string.end - string.begin));
  return ssoclient_json_decode(string, buffer.get()) ? std::optional<std::string>(buffer.get()) : std::nullopt;
}

}  // namespace test
