#pragma once

#include <cstddef>

namespace test {

/// Counts the process's open descriptors at its start. Make it after the log, the servers and the first use of
/// libraries that keep descriptors for themselves.
class OpenDescriptors {
 public:
  /// Waits until the number is the same for a moment: servers of this process may still be letting go of connections.
  OpenDescriptors();

  /// Whether as many are open as at the start, waiting a while for the same servers.
  bool areAsBefore() const;

  static std::size_t count();

 private:
  std::size_t before;
};

}  // namespace test
