// To be preloaded: what a program frees stays as it is and is never used again, so that whatever it has left there can
// still be found.

#include <malloc.h>
#include <stdlib.h>
#include <string.h>

void free(void* block) {
  (void)block;
}

void* realloc(void* block, size_t size) {
  void* const other = malloc(size);
  if (block != NULL && other != NULL) {
    const size_t before = malloc_usable_size(block);
    memcpy(other, block, before < size ? before : size);
  }
  return other;
}
