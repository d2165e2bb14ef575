// Linked in the place of util/Clock.cpp: the time and the pauses are what a test says.

#include "support/TestClock.h"

#include <atomic>
#include <mutex>

#include "util/Clock.h"

namespace velo::ssoService {
namespace {

std::atomic<std::int64_t> offsetSeconds{0};
std::mutex pausesLock;
std::function<void(std::chrono::seconds)> onPause;

}  // namespace

std::chrono::system_clock::time_point currentTime() {
  return std::chrono::system_clock::now() + std::chrono::seconds(offsetSeconds);
}

std::int64_t currentSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(currentTime().time_since_epoch()).count();
}

void pauseThread(std::chrono::seconds duration) {
  std::function<void(std::chrono::seconds)> action;
  {
    const std::lock_guard<std::mutex> guard(pausesLock);
    action = onPause;
  }
  if (action) {
    action(duration);
  }
}

}  // namespace velo::ssoService

namespace test {

void moveClock(std::chrono::seconds offset) {
  velo::ssoService::offsetSeconds = offset.count();
}

void replacePause(std::function<void(std::chrono::seconds)> action) {
  const std::lock_guard<std::mutex> guard(velo::ssoService::pausesLock);
  velo::ssoService::onPause = std::move(action);
}

}  // namespace test
