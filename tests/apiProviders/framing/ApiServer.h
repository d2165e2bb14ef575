#pragma once

#include <pthread.h>

#include <chrono>
#include <csignal>
#include <stdexcept>
#include <thread>

#include "apiProviders/SsoApiSocketProvider.h"
#include "apiProviders/framing/ApiClient.h"

namespace test {

/// A provider that serves its accept loop on a thread of its own until the scope ends.
class ApiServer {
 public:
  explicit ApiServer(velo::ssoService::DiscoverySSOManager* manager = nullptr,
                     std::chrono::milliseconds clientTimeout = std::chrono::milliseconds::zero())
      : number(freePort()), provider(manager, number, clientTimeout) {
    if (!provider.setupServer()) {
      throw std::runtime_error("cannot listen");
    }
    thread = std::thread([this] { provider.acceptLoop(); });
  }

  ~ApiServer() {
    provider.stop();
    ApiClient(number).close();  // a blocked accept is not woken by the stop itself
    thread.join();
  }

  ApiServer(const ApiServer&) = delete;
  ApiServer& operator=(const ApiServer&) = delete;

  int port() const { return number; }

  /// A system call that blocks the server's thread ends with EINTR.
  void interrupt() {
    struct sigaction action {};
    action.sa_handler = [](int /*signal*/) {};
    ::sigaction(SIGUSR1, &action, nullptr);
    ::pthread_kill(thread.native_handle(), SIGUSR1);
  }

 private:
  const int number;
  velo::ssoService::SsoApiSocketProvider provider;
  std::thread thread;
};

}  // namespace test
