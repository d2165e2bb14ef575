#include "support/DeadPorts.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "support/LoopbackSocket.h"
#include "util/Loopback.h"

namespace test {
namespace {

using velo::ssoService::Descriptor;

Descriptor startConnecting(int port) {
  Descriptor connection(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const sockaddr_in address = velo::ssoService::loopbackAddress(port);
  static_cast<void>(::connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
  return connection;
}

bool isDone(const Descriptor& connection) {
  constexpr int LONG_ENOUGH_MILLISECONDS = 50;
  pollfd watched{connection.get(), POLLOUT, 0};
  return ::poll(&watched, 1, LONG_ENOUGH_MILLISECONDS) > 0;
}

}  // namespace

ClosedPort::ClosedPort() : socket(bindLoopback()) {
}

int ClosedPort::port() const {
  return portOf(socket);
}

StalledPort::StalledPort() : listener(bindLoopback()) {
  ::listen(listener.get(), 0);
  do {
    queue.push_back(startConnecting(port()));
  } while (isDone(queue.back()));
}

int StalledPort::port() const {
  return portOf(listener);
}

}  // namespace test
