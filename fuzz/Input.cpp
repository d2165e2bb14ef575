#include "Input.h"

#include <algorithm>

namespace fuzz {

std::uint8_t Input::byte() {
  if (bytes.empty()) {
    return 0;
  }
  const auto taken = static_cast<std::uint8_t>(bytes.front());
  bytes.remove_prefix(1);
  return taken;
}

std::size_t Input::number() {
  const std::size_t high = byte();
  return high * 256 + byte();
}

std::string Input::piece() {
  const std::size_t length = std::min(bytes.find('\xff'), bytes.size());
  const std::string taken(bytes.substr(0, length));
  bytes.remove_prefix(std::min(length + 1, bytes.size()));
  return taken;
}

std::string Input::rest() {
  const std::string taken(bytes);
  bytes = {};
  return taken;
}

}  // namespace fuzz
