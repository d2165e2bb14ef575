#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

#include "support/Await.h"
#include "support/DeadPorts.h"
#include "support/KeyService.h"  // its frames are the same
#include "util/Descriptor.h"
#include "util/Loopback.h"

namespace test {

/// A port of 127.0.0.1 that nobody uses.
inline int freePort() {
  return ClosedPort().port();
}

/// A local program's side of one connection. Every operation is bounded by a deadline and throws when it fails.
class ApiClient {
 public:
  /// Waits until somebody listens on the port.
  explicit ApiClient(int port) {
    const sockaddr_in address = velo::ssoService::loopbackAddress(port);
    const auto connects = [&] {
      socket.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    };
    if (!await(connects)) {
      throw std::runtime_error("cannot connect");
    }
    const timeval limit{PATIENCE.count(), 0};
    setOption(SOL_SOCKET, SO_RCVTIMEO, limit);
    setOption(SOL_SOCKET, SO_SNDTIMEO, limit);
    setOption(IPPROTO_TCP, TCP_NODELAY, 1);
  }

  void send(const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t count = ::send(socket.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (count < 0) {
        throw std::runtime_error(std::string("send: ") + std::strerror(errno));
      }
      sent += static_cast<std::size_t>(count);
    }
  }

  /// Waits until the other side has what was sent, read or not: a reset discards the rest.
  void awaitDelivery() {
    int underWay = 0;
    if (!await([&] { return ::ioctl(socket.get(), TIOCOUTQ, &underWay) == 0 && underWay == 0; })) {
      throw std::runtime_error("nobody takes what was sent");
    }
  }

  /// The client's half of the connection ends; it can still receive.
  void finishSending() { ::shutdown(socket.get(), SHUT_WR); }

  void close() { socket.reset(); }

  /// Ends the connection by a reset instead of an orderly close.
  void reset() {
    setOption(SOL_SOCKET, SO_LINGER, linger{1, 0});
    socket.reset();
  }

  /// At most so many bytes; none at the end of the connection.
  std::string receive(std::size_t limit) {
    std::string bytes(limit, '\0');
    const ssize_t count = ::recv(socket.get(), bytes.data(), limit, 0);
    if (count < 0) {
      throw std::runtime_error(std::string("recv: ") + std::strerror(errno));
    }
    bytes.resize(static_cast<std::size_t>(count));
    return bytes;
  }

  /// Everything up to the end of the connection.
  std::string receiveAll(std::size_t step = 64 * 1024) {
    std::string all;
    for (std::string some = receive(step); !some.empty(); some = receive(step)) {
      all += some;
    }
    return all;
  }

  template <typename T>
  void setOption(int level, int option, const T& value) {
    ::setsockopt(socket.get(), level, option, &value, sizeof value);
  }

 private:
  velo::ssoService::Descriptor socket;
};

/// All that the service sends in answer to a request's payload, up to the end of the connection.
inline std::string ask(int port, const std::string& payload) {
  ApiClient client(port);
  client.send(frame(payload));
  return client.receiveAll();
}

}  // namespace test
