#include "Uuid.h"

#include <cstddef>
#include <limits>
#include <random>

#include "util/NoDestructor.h"

namespace velo::ssoService {
namespace {

constexpr std::uint64_t VERSION_MASK = 0xF000;
constexpr std::uint64_t VERSION_4 = 0x4000;
constexpr std::uint64_t VARIANT_MASK = std::uint64_t{3} << 62U;
constexpr std::uint64_t VARIANT_RFC_4122 = std::uint64_t{2} << 62U;

/// Writes the 16 digits of a half, most significant first, over the template's characters from a position on, dashes
/// left standing.
void writeDigits(std::uint64_t half, std::string& text, std::size_t position) {
  static constexpr char DIGITS[] = "0123456789abcdef";
  for (unsigned shift = 64; shift > 0; ++position) {
    if (text[position] != '-') {
      shift -= 4;
      text[position] = DIGITS[(half >> shift) & 0xFU];
    }
  }
}

}  // namespace

Uuid generateRandomUuid() {
  static NoDestructor<std::random_device> source("default");
  static std::uniform_int_distribution<std::uint64_t> distribution(0, std::numeric_limits<std::uint64_t>::max());
  Uuid uuid;
  uuid.high = distribution(*source);
  uuid.low = distribution(*source);
  uuid.high = (uuid.high & ~VERSION_MASK) | VERSION_4;
  uuid.low = (uuid.low & ~VARIANT_MASK) | VARIANT_RFC_4122;
  return uuid;
}

std::string uuidToString(const Uuid& uuid) {
  std::string text = "00000000-0000-0000-0000-000000000000";
  writeDigits(uuid.high, text, 0);
  writeDigits(uuid.low, text, 18);
  return text;
}

}  // namespace velo::ssoService
