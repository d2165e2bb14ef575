#include "log/Allocations.h"

#include <atomic>
#include <cstddef>

// The C library calls these instead of its own, and so does operator new.

namespace {

std::atomic<long> counted{0};

}  // namespace

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

void* malloc(std::size_t size) {
  ++counted;
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
  ++counted;
  return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) {
  ++counted;
  return __libc_realloc(memory, size);
}
}

long allocations() {
  return counted;
}
