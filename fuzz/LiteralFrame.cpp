#include "LiteralFrame.h"

namespace fuzz {

std::string lengthPrefix(std::size_t length) {
  std::string prefix;
  for (unsigned shift = 32; shift > 0;) {
    shift -= 8;
    prefix += static_cast<char>(length >> shift & 0xffU);
  }
  return prefix;
}

std::size_t announcedLength(const std::string& frame) {
  std::size_t length = 0;
  for (std::size_t i = 0; i < LENGTH_BYTES; ++i) {
    length = length * 256 + static_cast<unsigned char>(frame[i]);
  }
  return length;
}

std::string frameOf(const std::string& payload) {
  return lengthPrefix(payload.size()) + payload;
}

}  // namespace fuzz
