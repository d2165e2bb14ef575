#pragma once

#include <string>
#include <vector>

namespace fuzz {

// Stands in the place of the log: what would be written is kept.

/// The lines since the last call, each as "level text", and how the log was started, as "start PREFIX LEVEL".
std::vector<std::string> takeLog();

}  // namespace fuzz
