#pragma once

#include <cstdint>
#include <string>

namespace velo::ssoService {

/// A 128-bit identifier (RFC 4122).
struct Uuid {
  std::uint64_t high = 0;  ///< the first 16 hexadecimal digits of the text
  std::uint64_t low = 0;   ///< the last 16
};

/// A random identifier of version 4. The random source is shared and has no lock: callers hold one, as the manager
/// does. Throws what std::random_device throws.
Uuid generateRandomUuid();

/// The 36 characters of the text form, lower case.
std::string uuidToString(const Uuid& uuid);

}  // namespace velo::ssoService
