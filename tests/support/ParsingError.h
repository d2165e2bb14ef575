#pragma once

#include <string>

#include "json/json.h"

namespace test {

/// The text of the json::parsing_error that a function throws.
template <typename Function>
std::string parsingError(const Function& function) {
  try {
    function();
  } catch (const json::parsing_error& thrown) {
    return thrown.what();
  }
  return "nothing was thrown";
}

}  // namespace test
