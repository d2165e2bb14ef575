#include "support/OpenDescriptors.h"

#include <chrono>
#include <filesystem>
#include <iterator>
#include <utility>

#include "support/Await.h"

namespace test {

OpenDescriptors::OpenDescriptors() : before(count()) {
  constexpr std::chrono::milliseconds MOMENT{50};
  const auto changes = [this] {
    const std::size_t now = count();
    return std::exchange(before, now) != now;
  };
  while (await(changes, MOMENT)) {
  }
}

bool OpenDescriptors::areAsBefore() const {
  return await([this] { return count() == before; });
}

std::size_t OpenDescriptors::count() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

}  // namespace test
