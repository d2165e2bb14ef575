#pragma once

#include <string>

namespace fuzz {

/// What a step throws by the rules. Not an exception of the standard family, so that the rules for those leave it
/// alone.
struct Failure {
  std::string text;
};

}  // namespace fuzz
