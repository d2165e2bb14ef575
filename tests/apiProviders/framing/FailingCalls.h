#pragma once

#include <sys/resource.h>

namespace test {

/// System calls that hardly fail by themselves.
enum class Call { SETSOCKOPT, LISTEN, SEND };

/// Lets the calling thread's next such call return this, with this errno, instead of doing anything.
void failNext(Call call, int result, int reason);

/// The backlog of the calling thread's last listen; -1 before any.
int lastBacklog();

/// While it exists the process gets no new descriptor.
class NoNewDescriptors {
 public:
  NoNewDescriptors();
  ~NoNewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before); }
  NoNewDescriptors(const NoNewDescriptors&) = delete;
  NoNewDescriptors& operator=(const NoNewDescriptors&) = delete;

 private:
  rlimit before{};
};

}  // namespace test
