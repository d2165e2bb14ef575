#include "support/ScriptedServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "support/Await.h"
#include "support/LoopbackSocket.h"
#include "util/Descriptor.h"

namespace test {
namespace {

using velo::ssoService::Descriptor;

/// One accepted connection. Every wait ends when the stop descriptor becomes readable.
class Connection {
 public:
  Connection(int accepted, int stop) : socket(accepted), stopDescriptor(stop) {
    const int atOnce = 1;
    ::setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &atOnce, sizeof atOnce);
  }

  /// Appends what the client sends next; false when it has left or the server stops.
  bool receive(std::string& received) {
    pollfd watched[] = {{socket.get(), POLLIN, 0}, {stopDescriptor, POLLIN, 0}};
    ::poll(watched, 2, -1);
    char buffer[4096];
    const ssize_t count = watched[1].revents != 0 ? 0 : ::read(socket.get(), buffer, sizeof buffer);
    if (count <= 0) {
      return false;
    }
    received.append(buffer, static_cast<std::size_t>(count));
    return true;
  }

  void play(const Step& step, std::string& received) {
    switch (step.kind) {
      case Step::SEND:
        write(step.bytes);
        break;
      case Step::DRIP:
        for (const char byte : step.bytes) {
          write(std::string(1, byte));
          wait(std::chrono::milliseconds(1));
        }
        break;
      case Step::STREAM:
        for (std::size_t sent = 0; sent < step.bytes.size() && write(step.bytes.substr(sent, 1)); ++sent) {
        }
        break;
      case Step::PAUSE:
        wait(step.duration);
        break;
      case Step::RESET: {
        const linger atOnce{1, 0};
        ::setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        socket.reset();
        break;
      }
      case Step::SILENT:
        while (receive(received)) {
        }
        break;
    }
  }

  /// Ends this side in order and takes what the client still sends, until it leaves.
  void finish(std::string& received) {
    if (socket.isOpen()) {
      ::shutdown(socket.get(), SHUT_WR);
      while (receive(received)) {
      }
    }
  }

 private:
  /// False when the client has left, which is no business of the script.
  bool write(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      pollfd watched[] = {{socket.get(), POLLOUT, 0}, {stopDescriptor, POLLIN, 0}};
      ::poll(watched, 2, -1);
      const ssize_t count = watched[1].revents != 0 ? -1
                                                    : ::send(socket.get(), bytes.data() + sent, bytes.size() - sent,
                                                             MSG_NOSIGNAL | MSG_DONTWAIT);
      if (count <= 0) {
        return false;
      }
      sent += static_cast<std::size_t>(count);
    }
    return true;
  }

  void wait(std::chrono::milliseconds duration) const {
    pollfd watched{stopDescriptor, POLLIN, 0};
    ::poll(&watched, 1, static_cast<int>(duration.count()));
  }

  Descriptor socket;
  const int stopDescriptor;
};

}  // namespace

struct ScriptedServer::State {
  IsComplete isComplete;
  Descriptor listener = bindLoopback();
  Descriptor stop{::eventfd(0, EFD_CLOEXEC)};
  std::thread acceptor;

  mutable std::mutex lock;  // of all that follows
  std::function<Script(const std::string&)> choose = [](const std::string&) { return Script(); };
  std::vector<std::string> requests;
  std::vector<std::thread> servers;
  std::size_t running = 0;

  void acceptConnections() {
    for (;;) {
      pollfd watched[] = {{listener.get(), POLLIN, 0}, {stop.get(), POLLIN, 0}};
      ::poll(watched, 2, -1);
      if (watched[1].revents != 0) {
        return;
      }
      const int accepted = ::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
      const std::lock_guard<std::mutex> guard(lock);
      ++running;
      const std::size_t index = requests.size();
      requests.emplace_back();
      servers.emplace_back([this, accepted, index] { serve(accepted, index); });
    }
  }

  void serve(int accepted, std::size_t index) {
    std::string received;
    {
      Connection connection(accepted, stop.get());
      bool isThere = true;
      while (isThere && !isComplete(received)) {
        isThere = connection.receive(received);
      }
      if (isThere) {
        for (const Step& step : scriptFor(received)) {
          connection.play(step, received);
        }
      }
      connection.finish(received);
    }
    const std::lock_guard<std::mutex> guard(lock);
    requests[index] = received;
    --running;
  }

  Script scriptFor(const std::string& request) const {
    const std::lock_guard<std::mutex> guard(lock);
    return choose(request);
  }

  bool isIdle() const {
    const std::lock_guard<std::mutex> guard(lock);
    return running == 0;
  }
};

ScriptedServer::ScriptedServer(IsComplete isComplete) : state(std::make_unique<State>()) {
  state->isComplete = std::move(isComplete);
  ::listen(state->listener.get(), SOMAXCONN);
  state->acceptor = std::thread([this] { state->acceptConnections(); });
}

ScriptedServer::~ScriptedServer() {
  const std::uint64_t one = 1;
  static_cast<void>(!::write(state->stop.get(), &one, sizeof one));
  state->acceptor.join();
  for (std::thread& server : state->servers) {
    server.join();
  }
}

int ScriptedServer::port() const {
  return portOf(state->listener);
}

void ScriptedServer::answer(Script script) {
  answer([script = std::move(script)](const std::string&) { return script; });
}

void ScriptedServer::answer(std::function<Script(const std::string&)> choose) {
  const std::lock_guard<std::mutex> guard(state->lock);
  state->choose = std::move(choose);
}

std::vector<std::string> ScriptedServer::requests() const {
  if (!await([this] { return state->isIdle(); })) {
    throw std::runtime_error("a connection to the scripted server does not end");
  }
  const std::lock_guard<std::mutex> guard(state->lock);
  return state->requests;
}

std::size_t ScriptedServer::connectionCount() const {
  const std::lock_guard<std::mutex> guard(state->lock);
  return state->requests.size();
}

}  // namespace test
