#include "util/Heap.h"

#include <malloc.h>

namespace velo::ssoService {

void limitHeap() {
  constexpr int MOST_KEPT_BYTES = 256 * 1024;
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_TRIM_THRESHOLD, MOST_KEPT_BYTES);  // said once, it does not grow with the largest block any more
}

}  // namespace velo::ssoService
