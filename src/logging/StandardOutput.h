#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string_view>

/// Standard output as the log's destination. A pipe or socket that nobody empties any more does not hold the process up
/// for good: what has not been taken after five seconds is dropped, and so are later texts, at once, until there is
/// room again; then a line says how many were lost. The next minute nothing is waited for. For one thread at a time.
class StandardOutput {
 public:
  void write(std::string_view text);

  /// Once this is true, there are five more seconds for all waits together: a slow reader does not hold up the end of
  /// the process either.
  void hurryWhen(bool (*condition)()) { isEnding = condition; }

 private:
  using TimePoint = std::chrono::steady_clock::time_point;

  bool writeWholeBy(TimePoint end, std::string_view text);
  bool hasRoomBy(TimePoint end);
  bool isOver(TimePoint end);
  ssize_t writeSome(std::string_view text);

  bool (*isEnding)() = nullptr;
  bool mayBeSocket = true;
  TimePoint lastEnd = TimePoint::max();  ///< of the waits, once the process is ending
  TimePoint patientFrom;                 ///< there has been a wait in vain not long before
  std::size_t lost = 0;                  ///< texts, since the last one that was written whole
  bool isCut = false;                    ///< the last text that was written ended in its midst
};
