#pragma once

#include <ctime>

namespace test {

/// Stops the C library's time() for the whole program, for as long as the object lives; clock_gettime goes on. The log
/// takes its dates, its file names and its rotations from time(), so that both become a test's to choose.
class StoppedTime {
 public:
  explicit StoppedTime(std::time_t moment);
  ~StoppedTime();
  StoppedTime(const StoppedTime&) = delete;
  StoppedTime& operator=(const StoppedTime&) = delete;

  void advance(std::time_t seconds);
  std::time_t now() const;
};

}  // namespace test
