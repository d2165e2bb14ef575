#pragma once

#include <vector>

#include "util/Descriptor.h"

namespace test {

/// A port of 127.0.0.1 that refuses connections, and that nobody else gets meanwhile.
class ClosedPort {
 public:
  ClosedPort();
  int port() const;

 private:
  velo::ssoService::Descriptor socket;
};

/// A port of 127.0.0.1 that neither takes nor refuses connections: the listener's queue is full and stays so.
class StalledPort {
 public:
  StalledPort();
  int port() const;

 private:
  velo::ssoService::Descriptor listener;
  std::vector<velo::ssoService::Descriptor> queue;
};

}  // namespace test
