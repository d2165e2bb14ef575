#include "util/Signals.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "logging/logging.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "DiscoverySSOManager";

// Open until the process ends: any thread may be polling the first one.
std::atomic<int> stopDescriptor{-1};
std::atomic<int> reloadDescriptor{-1};

int poll(pollfd* watched, nfds_t count, std::chrono::milliseconds limit) {
  return ::poll(watched, count, static_cast<int>(limit.count()));
}

/// Blocks the signals and gives the descriptor that they are read from. Without one (-1) they stay open: a stop handler
/// that interrupts is better than a process that cannot be stopped.
int blockSignals(const sigset_t& signals) {
  const int descriptor = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (descriptor >= 0) {
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  }
  return descriptor;
}

/// As many as can be pending at once, so that a storm of them does not hold anybody up.
void deliver(int descriptor, void (*handler)(int)) {
  std::array<signalfd_siginfo, 2> received{};
  const ssize_t bytes = ::read(descriptor, received.data(), sizeof received);
  for (ssize_t taken = 0; taken < bytes; taken += static_cast<ssize_t>(sizeof(signalfd_siginfo))) {
    handler(static_cast<int>(received[static_cast<std::size_t>(taken) / sizeof(signalfd_siginfo)].ssi_signo));
  }
}

/// std::signal; it fails only for a number that is no signal's.
void handle(int signo, void (*handler)(int)) {
  static_cast<void>(std::signal(signo, handler));
}

}  // namespace

std::atomic<int> stopRequested{0};
std::atomic<int> reloadRequested{0};

void onStopSignal(int /*signo*/) {
  stopRequested = 1;  // first: from now on the log waits for nobody for long
  LOG_INFO("Received STOP signal");
}

void onReloadSignal(int /*signo*/) {
  LOG_INFO("Received RELOAD signal");
  reloadRequested = 1;
}

void takeSignals() {
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  sigset_t reloadSignals;
  sigemptyset(&reloadSignals);
  sigaddset(&reloadSignals, SIGHUP);
  stopDescriptor = blockSignals(stopSignals);
  reloadDescriptor = blockSignals(reloadSignals);
  log_hurry_when(isStopPending);
  handle(SIGTERM, onStopSignal);
  handle(SIGINT, onStopSignal);
  // A handler that interrupts could lock the log for good: better no reload than that.
  handle(SIGHUP, reloadDescriptor >= 0 ? onReloadSignal : SIG_IGN);
  handle(SIGPIPE, SIG_IGN);
  handle(SIGXFSZ, SIG_IGN);
}

void deliverSignals() {
  deliver(stopDescriptor, onStopSignal);
  deliver(reloadDescriptor, onReloadSignal);
}

void waitForSignal(std::chrono::milliseconds limit) {
  using std::chrono::steady_clock;
  const steady_clock::time_point end = steady_clock::now() + limit;
  pollfd watched[] = {{stopDescriptor, POLLIN, 0}, {reloadDescriptor, POLLIN, 0}};
  while (stopRequested == 0 && reloadRequested == 0) {
    // Rounded up, so that the last millisecond is slept and not spun.
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now());
    if (rest.count() <= 0) {
      return;
    }
    if (poll(watched, 2, rest) > 0) {
      deliverSignals();
      return;
    }
  }
}

bool isStopPending() {
  pollfd watched{stopDescriptor, POLLIN, 0};
  return stopRequested != 0 || poll(&watched, 1, std::chrono::milliseconds(0)) > 0;
}

int stopSignalDescriptor() {
  return stopDescriptor;
}

}  // namespace velo::ssoService
