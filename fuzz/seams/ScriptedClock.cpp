#include "seams/ScriptedClock.h"

#include "util/Clock.h"

namespace {

std::int64_t now = 0;

}  // namespace

namespace fuzz {

void setClock(std::int64_t seconds) {
  now = seconds;
}

}  // namespace fuzz

namespace velo::ssoService {

std::chrono::system_clock::time_point currentTime() {
  return std::chrono::system_clock::time_point(std::chrono::seconds(now));
}

std::int64_t currentSeconds() {
  return now;
}

void pauseThread(std::chrono::seconds /*duration*/) {
}

}  // namespace velo::ssoService
