// A line put together in a buffer, which may be too short.

#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <string>

#include "logging/LineText.h"

namespace {

void addFormatted(LineText& line, const char* format, ...) __attribute__((format(printf, 2, 3)));

void addFormatted(LineText& line, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  line.addFormatted(format, arguments);
  va_end(arguments);
}

std::string number(int value, std::size_t digits = 1) {
  char buffer[32];
  LineText line(buffer, sizeof buffer);
  line.addNumber(value, digits);
  return std::string(buffer, line.length());
}

TEST(LineText, NumbersAreLedByZeros) {
  EXPECT_EQ(number(0), "0");
  EXPECT_EQ(number(0, 2), "00");
  EXPECT_EQ(number(7, 2), "07");
  EXPECT_EQ(number(59, 2), "59");
  EXPECT_EQ(number(0, 3), "000");
  EXPECT_EQ(number(45, 3), "045");
  EXPECT_EQ(number(999, 3), "999");
  EXPECT_EQ(number(1234, 3), "1234");
}

TEST(LineText, NumbersAreThoseOfPrintf) {
  for (const int value : {INT_MIN, -1, 1, 972, INT_MAX}) {
    EXPECT_EQ(number(value), std::to_string(value));
  }
}

TEST(LineText, WhatDoesNotFitIsCountedAndNotWritten) {
  const std::string whole = "time [file:972] 12 and text\n";
  for (std::size_t capacity = 0; capacity <= whole.size() + 2; ++capacity) {
    std::string buffer(whole.size() + 8, '#');
    LineText line(buffer.data(), capacity);
    line.add("time [file:");
    line.addNumber(972);
    line.add("] ");
    addFormatted(line, "%d and %s", 12, "text");
    line.add("\n");
    EXPECT_EQ(line.length(), whole.size()) << capacity;
    EXPECT_EQ(buffer.substr(capacity), std::string(buffer.size() - capacity, '#')) << capacity;
    if (capacity > whole.size()) {
      EXPECT_EQ(buffer.substr(0, whole.size()), whole) << capacity;
    }
  }
}

}  // namespace
