// The program's own definitions of these calls come before the C library's. They pass on what is not to fail.

#include "apiProviders/framing/FailingCalls.h"

#include <dlfcn.h>
#include <sys/socket.h>

#include <cerrno>
#include <map>
#include <optional>

namespace test {
namespace {

struct Failure {
  int result;
  int reason;
};

thread_local std::map<Call, Failure> armed;

thread_local int backlogOfLastListen = -1;

std::optional<int> takeFailure(Call call) {
  const auto found = armed.find(call);
  if (found == armed.end()) {
    return std::nullopt;
  }
  const Failure failure = found->second;
  armed.erase(found);
  errno = failure.reason;
  return failure.result;
}

template <typename Function>
Function* original(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void failNext(Call call, int result, int reason) {
  armed[call] = {result, reason};
}

int lastBacklog() {
  return backlogOfLastListen;
}

NoNewDescriptors::NoNewDescriptors() {
  ::getrlimit(RLIMIT_NOFILE, &before);
  rlimit none = before;
  none.rlim_cur = 0;
  ::setrlimit(RLIMIT_NOFILE, &none);
}

}  // namespace test

extern "C" {

int setsockopt(int socket, int level, int option, const void* value, socklen_t length) noexcept {
  const std::optional<int> failure = test::takeFailure(test::Call::SETSOCKOPT);
  return failure ? *failure : test::original<decltype(setsockopt)>("setsockopt")(socket, level, option, value, length);
}

int listen(int socket, int backlog) noexcept {
  test::backlogOfLastListen = backlog;
  const std::optional<int> failure = test::takeFailure(test::Call::LISTEN);
  return failure ? *failure : test::original<decltype(listen)>("listen")(socket, backlog);
}

ssize_t send(int socket, const void* bytes, size_t count, int flags) {
  const std::optional<int> failure = test::takeFailure(test::Call::SEND);
  return failure ? *failure : test::original<decltype(send)>("send")(socket, bytes, count, flags);
}
}
