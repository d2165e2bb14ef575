#include "support/ChildProcess.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "support/Await.h"

/// Asked by the thread sanitizer: children may start threads although earlier tests have left some in the parent.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
  return "die_after_fork=0";
}

namespace test {
namespace {

/// Threads of earlier tests, waiting for something. One that works may hold a lock, the allocator's for one, that a
/// child would wait for in vain.
bool areOtherThreadsAsleep() {
  const std::string own = std::to_string(::gettid());
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string status;
    std::getline(std::ifstream(thread.path() / "stat"), status);
    if (thread.path().filename() != own && status.find(") S ") == std::string::npos && !status.empty()) {
      return false;
    }
  }
  return true;
}

}  // namespace

int runInChild(const std::function<void()>& action) {
  if (!await(areOtherThreadsAsleep)) {
    throw std::runtime_error("a thread does not come to rest");
  }
  static_cast<void>(std::fflush(nullptr));
  const pid_t child = ::fork();
  if (child < 0) {
    throw std::runtime_error("cannot fork");
  }
  if (child == 0) {
    ::alarm(60);
    action();
    static_cast<void>(std::fflush(nullptr));
    // Not exit: a child of a process with threads cannot look for leaks in them.
    ::_exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
  }
  int status = -1;
  if (::waitpid(child, &status, 0) != child) {
    throw std::runtime_error("cannot wait for a child");
  }
  return status;
}

}  // namespace test
