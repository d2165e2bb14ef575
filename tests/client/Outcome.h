#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "ssoclient.h"

namespace test {

/// How a call of the client library ended, and the text that it set; nothing for a null pointer.
struct Outcome {
  ssoclient_status status;
  std::optional<std::string> text;
};

inline Outcome ok(std::string text) {
  return {SSOCLIENT_OK, std::move(text)};
}

inline Outcome refused(std::string message) {
  return {SSOCLIENT_REFUSED, std::move(message)};
}

/// An outcome without a text.
inline Outcome only(ssoclient_status status) {
  return {status, std::nullopt};
}

/// Calls a function that sets a text, with one that must not stay; frees the text.
template <typename Function>
Outcome outcomeOf(const Function& function) {
  char untouched[] = "the text was not set";
  char* text = untouched;
  Outcome outcome = only(function(&text));
  if (text != nullptr) {
    outcome.text = text;
  }
  if (text != untouched) {
    ssoclient_free(text);
  }
  return outcome;
}

inline bool operator==(const Outcome& left, const Outcome& right) {
  return left.status == right.status && left.text == right.text;
}

inline std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  constexpr std::size_t ENOUGH = 200;
  return stream << ssoclient_status_text(outcome.status) << ": "
                << (outcome.text ? '"' + outcome.text->substr(0, ENOUGH) + '"' : "no text");
}

}  // namespace test
