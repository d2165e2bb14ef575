#include "logging/LineText.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>

void LineText::add(std::string_view text) {
  std::memcpy(end(), text.data(), std::min(text.size(), rest()));
  used += text.size();
}

void LineText::addNumber(int number, std::size_t digits) {
  char text[16];
  const auto result = std::to_chars(std::begin(text), std::end(text), number);
  const std::string_view written(text, static_cast<std::size_t>(result.ptr - text));
  add(std::string_view("00").substr(0, digits - std::min(digits, written.size())));
  add(written);
}

void LineText::addFormatted(const char* format, va_list arguments) {
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the analyzer does not see that the caller started the list
  used += static_cast<std::size_t>(std::max(std::vsnprintf(end(), rest(), format, arguments), 0));
}

char* LineText::end() const {
  return buffer + std::min(used, capacity);
}

std::size_t LineText::rest() const {
  return capacity - std::min(used, capacity);
}
