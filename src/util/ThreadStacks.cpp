#include "util/ThreadStacks.h"

#include <pthread.h>

namespace velo::ssoService {

int limitThreadStacks() {
  pthread_attr_t attributes;
  int failure = pthread_getattr_default_np(&attributes);
  if (failure != 0) {
    return failure;
  }
  failure = pthread_attr_setstacksize(&attributes, THREAD_STACK_BYTES);
  if (failure == 0) {
    failure = pthread_setattr_default_np(&attributes);
  }
  pthread_attr_destroy(&attributes);
  return failure;
}

}  // namespace velo::ssoService
