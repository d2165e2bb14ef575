#include "util/Secrets.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace velo::ssoService {
namespace {

void* allocate(std::size_t size, const char* /*file*/, int /*line*/) {
  return std::malloc(size);
}

void wipeAndFree(void* memory, const char* /*file*/, int /*line*/) {
  OPENSSL_cleanse(memory, malloc_usable_size(memory));
  std::free(memory);
}

/// Not realloc, which would leave the old place as it is when it moves the contents.
void* moveAndWipe(void* memory, std::size_t size, const char* file, int line) {
  void* const moved = allocate(size, file, line);
  if (memory != nullptr && moved != nullptr) {
    std::memcpy(moved, memory, std::min(size, malloc_usable_size(memory)));
    wipeAndFree(memory, file, line);
  }
  return moved;
}

/// A function of its own, so that its frame lies where theirs lay.
__attribute__((noinline)) void wipeStackBelow() {
  const SecretBytes<32768> below;
}

}  // namespace

StackWiper::~StackWiper() {
  wipeStackBelow();
}

void wipeMemoryOfOpenSsl() {
  CRYPTO_set_mem_functions(allocate, moveAndWipe, wipeAndFree);
}

void wipe(std::string& text) {
  text.resize(text.capacity());  // what a longer text has left behind the end goes too
  OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

void growWiped(std::string& text, std::size_t bytes) {
  if (bytes <= text.capacity()) {
    return;
  }
  std::string larger;
  larger.reserve(std::max(bytes, 2 * text.capacity()));
  larger = text;
  wipe(text);
  text.swap(larger);
}

}  // namespace velo::ssoService
