#pragma once

#include <cstdarg>
#include <cstddef>
#include <string_view>

/// A line that is put together in the caller's buffer, without printf where that is slow. What does not fit is counted,
/// not kept, so that the buffer can be made as long as the line turns out to be.
class LineText {
 public:
  LineText(char* target, std::size_t size) : buffer(target), capacity(size) {}

  /// Of the whole line, whether it fits or not.
  std::size_t length() const { return used; }

  void add(std::string_view text);

  /// With zeros before it if it has fewer digits, of which there are three at most.
  void addNumber(int number, std::size_t digits = 1);

  /// As vsnprintf has it; the last byte of the buffer is lost to its terminating NUL.
  void addFormatted(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));

 private:
  char* end() const;
  std::size_t rest() const;

  char* const buffer;
  const std::size_t capacity;
  std::size_t used = 0;
};
