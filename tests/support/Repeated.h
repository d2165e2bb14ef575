#pragma once

#include <cstddef>
#include <string>

namespace test {

/// The text so many times in a row.
inline std::string repeated(const std::string& text, std::size_t count) {
  std::string all;
  all.reserve(text.size() * count);
  for (; count > 0; --count) {
    all += text;
  }
  return all;
}

}  // namespace test
