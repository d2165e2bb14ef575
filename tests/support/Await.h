#pragma once

#include <chrono>
#include <thread>

namespace test {

/// How long a test waits at most for what another thread is to do.
constexpr std::chrono::seconds PATIENCE{10};

/// Whether a condition comes true in time.
template <typename Condition>
bool await(Condition condition, std::chrono::milliseconds limit = PATIENCE) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace test
