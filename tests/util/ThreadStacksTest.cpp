#include <gtest/gtest.h>
#include <pthread.h>

#include <thread>

#include "util/ThreadStacks.h"

namespace {

using velo::ssoService::limitThreadStacks;
using velo::ssoService::THREAD_STACK_BYTES;

/// Puts the process's default attributes of threads back.
class DefaultAttributes {
 public:
  DefaultAttributes() { pthread_getattr_default_np(&before); }
  ~DefaultAttributes() {
    pthread_setattr_default_np(&before);
    pthread_attr_destroy(&before);
  }
  DefaultAttributes(const DefaultAttributes&) = delete;
  DefaultAttributes& operator=(const DefaultAttributes&) = delete;

 private:
  pthread_attr_t before{};
};

std::size_t stackBytesOfANewThread() {
  std::size_t bytes = 0;
  std::thread([&] {
    pthread_attr_t own;
    if (pthread_getattr_np(pthread_self(), &own) == 0) {
      pthread_attr_getstacksize(&own, &bytes);
      pthread_attr_destroy(&own);
    }
  }).join();
  return bytes;
}

TEST(ThreadStacks, NewThreadsGetTheSize) {
  const DefaultAttributes keeper;
  EXPECT_GT(stackBytesOfANewThread(), THREAD_STACK_BYTES);  // so that the size below is not there anyway
  EXPECT_EQ(limitThreadStacks(), 0);
  EXPECT_EQ(stackBytesOfANewThread(), THREAD_STACK_BYTES);
}

}  // namespace
