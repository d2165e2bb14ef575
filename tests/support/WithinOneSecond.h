#pragma once

#include <chrono>
#include <stdexcept>

#include "support/TestClock.h"
#include "util/Clock.h"

namespace test {

/// The result of an action that began and ended in the same second, the clock being right at both ends: repeats it
/// until it did. Whatever depends on whole seconds can then be told exactly.
template <typename Action>
auto withinOneSecond(Action action) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    moveClock(std::chrono::seconds(0));
    const auto start = velo::ssoService::currentSeconds();
    auto result = action();
    moveClock(std::chrono::seconds(0));
    if (velo::ssoService::currentSeconds() == start) {
      return result;
    }
  }
  throw std::runtime_error("the action does not fit into a second");
}

}  // namespace test
