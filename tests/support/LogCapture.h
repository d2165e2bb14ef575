#pragma once

#include <string>
#include <vector>

#include "logging/logging.h"

namespace test {

/// Sends the log of its scope to a file of its own, without times, and gives its lines as "source: message" (the source
/// position's line number left out). Starts with the lines after "LOG START".
class LogCapture {
 public:
  explicit LogCapture(int level = LOG_LEVEL_VERBOSE);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// The lines so far. A message that spans several lines gives several.
  std::vector<std::string> lines() const;

  bool contains(const std::string& line) const;

 private:
  std::string directory;
  std::string file;
};

}  // namespace test
