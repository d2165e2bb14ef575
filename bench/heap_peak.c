/* To be preloaded: prints at the end, to standard error, the most that malloc and its kin had given out at one time. */
#include <malloc.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdio.h>

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void __libc_free(void* block);

static atomic_size_t in_use;
static atomic_size_t peak;

static void* count(void* block) {
  const size_t now = atomic_fetch_add(&in_use, malloc_usable_size(block)) + malloc_usable_size(block);
  size_t most = atomic_load(&peak);
  while (now > most && !atomic_compare_exchange_weak(&peak, &most, now)) {
  }
  return block;
}

static void discount(void* block) {
  atomic_fetch_sub(&in_use, malloc_usable_size(block));
}

void* malloc(size_t size) {
  return count(__libc_malloc(size));
}

void* calloc(size_t number, size_t size) {
  return count(__libc_calloc(number, size));
}

void* realloc(void* block, size_t size) {
  const size_t before = malloc_usable_size(block);
  void* const other = __libc_realloc(block, size);
  if (other != NULL || size == 0) {
    atomic_fetch_sub(&in_use, before);
  }
  return count(other);
}

void free(void* block) {
  discount(block);
  __libc_free(block);
}

__attribute__((destructor)) static void print_peak(void) {
  (void)fprintf(stderr, "heap peak: %zu\n", atomic_load(&peak));
}
