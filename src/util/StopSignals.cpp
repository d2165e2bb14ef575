#include "util/StopSignals.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "logging/logging.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "DiscoverySSOManager";

std::atomic<int> signalDescriptor{-1};  // open until the process ends: any thread may be polling it

int poll(pollfd* watched, nfds_t count, std::chrono::milliseconds limit) {
  return ::poll(watched, count, static_cast<int>(limit.count()));
}

}  // namespace

std::atomic<int> stopRequested{0};

void onStopSignal(int /*signo*/) {
  LOG_INFO("Received STOP signal");
  stopRequested = 1;
}

void takeStopSignals() {
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  signalDescriptor = ::signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK);
  // Without a descriptor an interrupting handler is better than a process that cannot be stopped.
  if (signalDescriptor >= 0) {
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  }
  std::signal(SIGTERM, onStopSignal);
  std::signal(SIGINT, onStopSignal);
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

void deliverStopSignals() {
  signalfd_siginfo received{};
  while (::read(signalDescriptor, &received, sizeof received) == static_cast<ssize_t>(sizeof received)) {
    onStopSignal(static_cast<int>(received.ssi_signo));
  }
}

void waitForStopSignal(std::chrono::seconds limit) {
  using std::chrono::steady_clock;
  const steady_clock::time_point end = steady_clock::now() + limit;
  pollfd watched{signalDescriptor, POLLIN, 0};
  while (stopRequested == 0) {
    // Rounded up, so that the last millisecond is slept and not spun.
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now());
    if (rest.count() <= 0) {
      return;
    }
    if (poll(&watched, 1, rest) > 0) {
      deliverStopSignals();
      return;
    }
  }
}

bool isStopPending() {
  pollfd watched{signalDescriptor, POLLIN, 0};
  return stopRequested != 0 || poll(&watched, 1, std::chrono::milliseconds(0)) > 0;
}

int stopSignalDescriptor() {
  return signalDescriptor;
}

}  // namespace velo::ssoService
