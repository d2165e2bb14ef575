#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace test {

/// The lines that an action logs at a level, as "source: message". What the action throws is dropped.
std::vector<std::string> linesOf(const std::function<void()>& action, int level);

/// Whether an action logs a line at exactly this level: shown at it, not shown one below.
testing::AssertionResult isLoggedAt(int level, const std::string& line, const std::function<void()>& action);

}  // namespace test
