#include "Require.h"

#include <cstdio>
#include <cstdlib>

namespace fuzz {

void require(bool holds, const char* fact) {
  if (!holds) {
    static_cast<void>(std::fprintf(stderr, "does not hold: %s\n", fact));
    std::abort();
  }
}

void requireEqual(const std::string& actual, const std::string& expected, const char* fact) {
  if (actual != expected) {
    static_cast<void>(std::fprintf(stderr, "is:     %s\nshould: %s\n", actual.c_str(), expected.c_str()));
    require(false, fact);
  }
}

}  // namespace fuzz
