#pragma once

#include <chrono>
#include <functional>
#include <vector>

namespace test {

using Waits = std::vector<std::chrono::milliseconds>;

/// What stands in the place of signals and of the main thread's waits for them: waits return at once, after what the
/// script does, and a stop or a reload is what the script says. One at a time.
struct StopScript {
  StopScript();
  ~StopScript();
  StopScript(const StopScript&) = delete;
  StopScript& operator=(const StopScript&) = delete;

  /// What happens during a wait, given the number of waits before it.
  std::function<void(std::size_t)> onWait;

  /// What happens when pending signals are delivered without a wait, given the number of deliveries before it.
  std::function<void(std::size_t)> onDelivery;

  Waits waits;
  std::size_t deliveries = 0;
};

/// As if a stop signal had been handled.
void requestStop();

/// As if a reload signal had been handled.
void requestReload();

}  // namespace test
