#include "support/SmallStack.h"

#include <pthread.h>

#include <exception>
#include <system_error>

namespace test {
namespace {

struct Job {
  const std::function<void()>& action;
  std::exception_ptr thrown = nullptr;
};

void* runJob(void* argument) {
  Job& job = *static_cast<Job*>(argument);
  try {
    job.action();
  } catch (...) {
    job.thrown = std::current_exception();
  }
  return nullptr;
}

void require(int result) {
  if (result != 0) {
    throw std::system_error(result, std::generic_category(), "thread with a small stack");
  }
}

}  // namespace

void runOnSmallStack(const std::function<void()>& action) {
  Job job{action};
  pthread_attr_t attributes;
  require(pthread_attr_init(&attributes));
  require(pthread_attr_setstacksize(&attributes, SMALL_STACK_BYTES));
  pthread_t thread{};
  require(pthread_create(&thread, &attributes, runJob, &job));
  require(pthread_join(thread, nullptr));
  require(pthread_attr_destroy(&attributes));
  if (job.thrown) {
    std::rethrow_exception(job.thrown);
  }
}

}  // namespace test
