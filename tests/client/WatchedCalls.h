#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace test {

/// The calls into the C library that the client library makes on this thread while this exists: a test may look at
/// them, do something first, or have memory run out. Memory is empty when it is allocated, so that what is in it when
/// it is freed has been put there. One of these at a time on each thread.
class WatchedCalls {
 public:
  WatchedCalls();
  ~WatchedCalls();
  WatchedCalls(const WatchedCalls&) = delete;
  WatchedCalls& operator=(const WatchedCalls&) = delete;

  std::function<void(int socket)> beforeConnect = [](int) {};
  std::function<void(int socket)> beforeSend = [](int) {};
  std::function<bool()> mayAllocate = [] { return true; };
  std::function<void(const std::string& bytes)> beforeFree = [](const std::string&) {};
};

}  // namespace test
