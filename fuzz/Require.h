#pragma once

#include <string>

namespace fuzz {

/// Ends the process unless the fact holds, naming it on standard error.
void require(bool holds, const char* fact);

/// The same for two texts that have to be equal; shows both when they are not.
void requireEqual(const std::string& actual, const std::string& expected, const char* fact);

}  // namespace fuzz
