#pragma once

#include <chrono>
#include <functional>

namespace test {

/// Sets how far the service's clock is ahead of the system's; 0 puts it right again.
void moveClock(std::chrono::seconds offset);

/// What happens in the place of a pause of the service's threads; an empty function lets pauses return at once.
void replacePause(std::function<void(std::chrono::seconds)> action);

}  // namespace test
