#include "support/LoggedAt.h"

#include <algorithm>
#include <exception>

#include "support/LogCapture.h"

namespace test {

std::vector<std::string> linesOf(const std::function<void()>& action, int level) {
  const LogCapture log(level);
  try {
    action();
  } catch (const std::exception&) {
    // only the log is looked at
  }
  return log.lines();
}

testing::AssertionResult isLoggedAt(int level, const std::string& line, const std::function<void()>& action) {
  const auto isShownAt = [&](int shown) {
    const std::vector<std::string> lines = linesOf(action, shown);
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  };
  if (!isShownAt(level)) {
    return testing::AssertionFailure() << "not shown at level " << level << ": " << line;
  }
  if (isShownAt(level - 1)) {
    return testing::AssertionFailure() << "shown below level " << level << ": " << line;
  }
  return testing::AssertionSuccess();
}

}  // namespace test
