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
  const std::size_t before = stackBytesOfANewThread();
  ASSERT_GT(before, 4 * THREAD_STACK_BYTES);
  limitThreadStacks();
#ifdef __SANITIZE_THREAD__  // its thread-local storage does not fit
  EXPECT_GT(stackBytesOfANewThread(), THREAD_STACK_BYTES);
  EXPECT_LT(stackBytesOfANewThread(), before);
#else
  EXPECT_EQ(stackBytesOfANewThread(), THREAD_STACK_BYTES);
#endif
}

TEST(ThreadStacks, SmallerOnesStay) {
  const DefaultAttributes keeper;
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_getattr_default_np(&attributes), 0);
  constexpr std::size_t SMALLER = THREAD_STACK_BYTES / 2;
  pthread_attr_setstacksize(&attributes, SMALLER);
  pthread_setattr_default_np(&attributes);
  pthread_attr_destroy(&attributes);
  limitThreadStacks();
  ASSERT_EQ(pthread_getattr_default_np(&attributes), 0);
  std::size_t bytes = 0;
  pthread_attr_getstacksize(&attributes, &bytes);
  pthread_attr_destroy(&attributes);
  EXPECT_EQ(bytes, SMALLER);
}

}  // namespace
