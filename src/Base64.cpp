#include "Base64.h"

#include <cstdint>

namespace velo::ssoService {
namespace {

constexpr unsigned BITS_PER_DIGIT = 6;
constexpr unsigned BITS_PER_BYTE = 8;
constexpr int NOT_IN_ALPHABET = -1;

int digitValue(char digit) {
  if (digit >= 'A' && digit <= 'Z') {
    return digit - 'A';
  }
  if (digit >= 'a' && digit <= 'z') {
    return digit - 'a' + 26;
  }
  if (digit >= '0' && digit <= '9') {
    return digit - '0' + 52;
  }
  return digit == '+' ? 62 : (digit == '/' ? 63 : NOT_IN_ALPHABET);
}

}  // namespace

std::string base64Decode(const std::string& text) {
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3 + 2);
  std::uint32_t bits = 0;
  unsigned bitCount = 0;
  for (const char digit : text) {
    const int value = digitValue(digit);
    if (value == NOT_IN_ALPHABET) {
      break;
    }
    bits = (bits << BITS_PER_DIGIT) | static_cast<std::uint32_t>(value);
    bitCount += BITS_PER_DIGIT;
    if (bitCount >= BITS_PER_BYTE) {
      bitCount -= BITS_PER_BYTE;
      bytes += static_cast<char>((bits >> bitCount) & 0xFFU);
    }
  }
  return bytes;
}

}  // namespace velo::ssoService
