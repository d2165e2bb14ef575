#include "support/LoopbackSocket.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <stdexcept>

#include "util/Loopback.h"

namespace test {

using velo::ssoService::Descriptor;

Descriptor bindLoopback() {
  Descriptor bound(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = velo::ssoService::loopbackAddress(0);
  if (::bind(bound.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("cannot bind a loopback port");
  }
  return bound;
}

int portOf(const Descriptor& socket) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

}  // namespace test
