#pragma once

#include <cstdio>

#include "logging/logging.h"
#include "support/OutputCapture.h"

namespace test {

/// Puts the log at rest at both ends of its scope: off, nothing open, no prefix, no times, no rotation.
class LogReset {
 public:
  LogReset() { reset(); }
  ~LogReset() { reset(); }
  LogReset(const LogReset&) = delete;
  LogReset& operator=(const LogReset&) = delete;

 private:
  static void reset() {
    captured(stdout, [] {  // the end of a log that runs on standard output
      log_init(nullptr, LOG_LEVEL_OFF, 0);
      log_close();
      log_set_max_size_kb(0);
      log_set_rotation_hours(0);
    });
  }
};

}  // namespace test
