#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace fuzz {

/// Takes an input apart, from its front on. Where it has ended, numbers are 0 and texts empty.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : bytes(reinterpret_cast<const char*>(data), size) {}

  bool isEmpty() const { return bytes.empty(); }

  std::uint8_t byte();
  std::size_t below(std::size_t limit) { return byte() % limit; }
  bool flag() { return below(2) != 0; }

  /// Two bytes, the higher one first.
  std::size_t number();

  /// The text up to the next byte ff, which is dropped: UTF-8 never has it.
  std::string piece();

  std::string rest();

 private:
  std::string_view bytes;
};

}  // namespace fuzz
