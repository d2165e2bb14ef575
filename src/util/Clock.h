#pragma once

#include <chrono>
#include <cstdint>

namespace velo::ssoService {

/// The system clock. Tests link a clock of their own in the place of Clock.cpp.
std::chrono::system_clock::time_point currentTime();

/// The same in whole seconds since the epoch, truncated.
std::int64_t currentSeconds();

/// Lets the calling thread sleep. For threads that do not take the stop signals.
void pauseThread(std::chrono::seconds duration);

}  // namespace velo::ssoService
