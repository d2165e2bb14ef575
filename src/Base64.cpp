#include "Base64.h"

#include <array>
#include <cstdint>
#include <string_view>

namespace velo::ssoService {
namespace {

constexpr unsigned BITS_PER_DIGIT = 6;
constexpr unsigned BITS_PER_BYTE = 8;
constexpr std::int8_t NOT_IN_ALPHABET = -1;

constexpr std::string_view ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> digitValues() {
  std::array<std::int8_t, 256> values{};
  for (std::int8_t& value : values) {
    value = NOT_IN_ALPHABET;
  }
  for (std::size_t value = 0; value < ALPHABET.size(); ++value) {
    values[static_cast<unsigned char>(ALPHABET[value])] = static_cast<std::int8_t>(value);
  }
  return values;
}

constexpr std::array<std::int8_t, 256> DIGIT_VALUES = digitValues();

}  // namespace

std::string base64Decode(const std::string& text) {
  std::string bytes(text.size() / 4 * 3 + 2, '\0');
  std::size_t length = 0;
  std::uint32_t bits = 0;
  unsigned bitCount = 0;
  for (const char digit : text) {
    const std::int8_t value = DIGIT_VALUES[static_cast<unsigned char>(digit)];
    if (value == NOT_IN_ALPHABET) {
      break;
    }
    bits = (bits << BITS_PER_DIGIT) | static_cast<unsigned char>(value);
    bitCount += BITS_PER_DIGIT;
    if (bitCount >= BITS_PER_BYTE) {
      bitCount -= BITS_PER_BYTE;
      bytes[length] = static_cast<char>((bits >> bitCount) & 0xFFU);
      ++length;
    }
  }
  bytes.resize(length);
  return bytes;
}

}  // namespace velo::ssoService
