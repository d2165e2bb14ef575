#include "support/ChildProcess.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

/// Asked by the thread sanitizer: children may start threads although earlier tests have left some in the parent.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
  return "die_after_fork=0";
}

namespace test {

int runInChild(const std::function<void()>& action) {
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
