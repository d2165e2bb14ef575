#pragma once

#include <cstdint>

namespace fuzz {

/// Sets the time that the service sees, in seconds since the epoch. Pauses return at once.
void setClock(std::int64_t seconds);

}  // namespace fuzz
