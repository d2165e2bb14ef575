#include "support/SystemTime.h"

#include <atomic>

namespace {

constexpr std::time_t RUNNING = -1;

std::atomic<std::time_t> stoppedAt{RUNNING};

}  // namespace

/// Linked in the place of the C library's.
extern "C" std::time_t time(std::time_t* result) noexcept {
  std::time_t now = stoppedAt;
  if (now == RUNNING) {
    std::timespec precise{};
    clock_gettime(CLOCK_REALTIME, &precise);
    now = precise.tv_sec;
  }
  if (result != nullptr) {
    *result = now;
  }
  return now;
}

namespace test {

StoppedTime::StoppedTime(std::time_t moment) {
  stoppedAt = moment;
}

StoppedTime::~StoppedTime() {
  stoppedAt = RUNNING;
}

void StoppedTime::advance(std::time_t seconds) {
  stoppedAt += seconds;
}

std::time_t StoppedTime::now() const {
  return stoppedAt;
}

}  // namespace test
