#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>

#include "util/Descriptor.h"

namespace test {

/// Two connected sockets: bytes that are sent at one end are read at the other.
struct SocketPair {
  SocketPair() {
    int ends[2] = {velo::ssoService::Descriptor::NONE, velo::ssoService::Descriptor::NONE};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    near.reset(ends[0]);
    far.reset(ends[1]);
  }

  void send(const std::string& bytes) const {
    EXPECT_EQ(::send(far.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }

  velo::ssoService::Descriptor near;
  velo::ssoService::Descriptor far;
};

}  // namespace test
