#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

/// Standard output as the log's destination. A pipe that nobody empties any more does not hold the process up for good:
/// what has not been taken after five seconds is dropped, and so are later texts, at once, until there is room again;
/// then a line says how many were lost. The next minute nothing is waited for. For one thread at a time.
class StandardOutput {
 public:
  void write(std::string_view text);

 private:
  bool writeWholeBy(std::chrono::steady_clock::time_point end, std::string_view text);

  std::chrono::steady_clock::time_point patientFrom;  ///< there has been a wait in vain not long before
  std::size_t lost = 0;                               ///< texts, since the last one that was written whole
  bool isCut = false;                                 ///< the last text that was written ended in its midst
};
