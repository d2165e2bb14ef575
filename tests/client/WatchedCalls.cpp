// The linker turns the calls in this program's own code into calls of these (--wrap). Shared libraries keep theirs.

#include "client/WatchedCalls.h"

#include <malloc.h>
#include <sys/socket.h>

#include <cstring>

namespace test {
namespace {

thread_local WatchedCalls* watching = nullptr;

}  // namespace

WatchedCalls::WatchedCalls() {
  watching = this;
}

WatchedCalls::~WatchedCalls() {
  watching = nullptr;
}

}  // namespace test

extern "C" {

int __real_connect(int socket, const sockaddr* address, socklen_t length);
int __wrap_connect(int socket, const sockaddr* address, socklen_t length);
int __wrap_connect(int socket, const sockaddr* address, socklen_t length) {
  if (test::watching != nullptr) {
    test::watching->beforeConnect(socket);
  }
  return __real_connect(socket, address, length);
}

ssize_t __real_send(int socket, const void* bytes, size_t count, int flags);
ssize_t __wrap_send(int socket, const void* bytes, size_t count, int flags);
ssize_t __wrap_send(int socket, const void* bytes, size_t count, int flags) {
  if (test::watching != nullptr) {
    test::watching->beforeSend(socket);
  }
  return __real_send(socket, bytes, count, flags);
}

void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size);
void* __wrap_malloc(size_t size) {
  if (test::watching == nullptr) {
    return __real_malloc(size);
  }
  void* memory = test::watching->mayAllocate() ? __real_malloc(size) : nullptr;
  return memory == nullptr ? nullptr : std::memset(memory, 0, malloc_usable_size(memory));
}

char* __wrap_strndup(const char* text, size_t size);
char* __wrap_strndup(const char* text, size_t size) {
  const size_t length = strnlen(text, size);
  char* copy = static_cast<char*>(__wrap_malloc(length + 1));
  if (copy != nullptr) {
    std::memcpy(copy, text, length);
    copy[length] = '\0';
  }
  return copy;
}

void __real_free(void* memory);
void __wrap_free(void* memory);
void __wrap_free(void* memory) {
  if (test::watching != nullptr && memory != nullptr) {
    test::watching->beforeFree({static_cast<const char*>(memory), malloc_usable_size(memory)});
  }
  __real_free(memory);
}
}
