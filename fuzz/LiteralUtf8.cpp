#include "LiteralUtf8.h"

#include <array>
#include <cstddef>

namespace fuzz {
namespace {

/// How many bytes follow the first one of a sequence in UTF-8; -1 behind none.
int bytesBehind(unsigned char first) {
  return first < 0x80 ? 0 : first < 0xc0 ? -1 : first < 0xe0 ? 1 : first < 0xf0 ? 2 : first < 0xf8 ? 3 : -1;
}

/// Takes a sequence off. False when it stands for no character.
bool takeCharacter(const char*& rest) {
  static constexpr std::array<unsigned, 4> LEAST = {0, 0x80, 0x800, 0x10000};
  const auto first = static_cast<unsigned char>(*rest);
  const int more = bytesBehind(first);
  if (more < 0) {
    return false;
  }
  unsigned point = more == 0 ? first : first & 0x3fU >> static_cast<unsigned>(more);
  ++rest;
  for (int i = 0; i < more; ++i, ++rest) {
    const auto next = static_cast<unsigned char>(*rest);
    if ((next & 0xc0U) != 0x80U) {
      return false;
    }
    point = point * 64 + (next & 0x3fU);
  }
  return point >= LEAST[static_cast<std::size_t>(more)] && point <= 0x10ffff && (point < 0xd800 || point > 0xdfff);
}

}  // namespace

bool isUtf8(const std::string& text) {
  const char* rest = text.c_str();
  while (*rest != '\0') {
    if (!takeCharacter(rest)) {
      return false;
    }
  }
  return true;
}

}  // namespace fuzz
