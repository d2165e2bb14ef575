#include "util/ThreadStacks.h"

#include <pthread.h>

namespace velo::ssoService {
namespace {

void* doNothing(void* argument) {
  return argument;
}

/// Only the attempt shows whether a size is enough: the C library takes thread-local storage from the stack.
bool threadStarts() {
  pthread_t thread{};
  return pthread_create(&thread, nullptr, doNothing, nullptr) == 0 && pthread_join(thread, nullptr) == 0;
}

}  // namespace

void limitThreadStacks() {
  pthread_attr_t attributes;
  if (pthread_getattr_default_np(&attributes) != 0) {
    return;
  }
  std::size_t before = 0;
  pthread_attr_getstacksize(&attributes, &before);
  std::size_t size = THREAD_STACK_BYTES;
  const auto become = [&](std::size_t bytes) {
    return pthread_attr_setstacksize(&attributes, bytes) == 0 && pthread_setattr_default_np(&attributes) == 0;
  };
  while (size < before && !(become(size) && threadStarts())) {
    size *= 2;
  }
  if (size >= before) {
    static_cast<void>(become(before));
  }
  pthread_attr_destroy(&attributes);
}

}  // namespace velo::ssoService
