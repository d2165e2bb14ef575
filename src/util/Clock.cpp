#include "util/Clock.h"

#include <thread>

namespace velo::ssoService {

std::chrono::system_clock::time_point currentTime() {
  return std::chrono::system_clock::now();
}

std::int64_t currentSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(currentTime().time_since_epoch()).count();
}

void pauseThread(std::chrono::seconds duration) {
  std::this_thread::sleep_for(duration);
}

}  // namespace velo::ssoService
