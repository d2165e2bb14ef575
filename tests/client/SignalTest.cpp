// Signals that interrupt a call change nothing about it, and it raises none.

#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "client/Calls.h"
#include "client/WatchedCalls.h"
#include "support/Await.h"
#include "support/DeadPorts.h"
#include "support/FrameServer.h"
#include "support/KeyService.h"  // its frames are the same
#include "support/LoopbackSocket.h"

namespace {

using test::Request;
using velo::ssoService::Descriptor;

std::atomic<int> arrived{0};

/// Counts arrivals of a signal while it exists. System calls are not restarted.
class CountedSignal {
 public:
  explicit CountedSignal(int signalNumber) : number(signalNumber) {
    arrived = 0;
    struct sigaction counting {};
    counting.sa_handler = [](int) { ++arrived; };
    ::sigaction(number, &counting, &before);
  }
  ~CountedSignal() { ::sigaction(number, &before, nullptr); }
  CountedSignal(const CountedSignal&) = delete;
  CountedSignal& operator=(const CountedSignal&) = delete;

 private:
  const int number;
  struct sigaction before {};
};

/// Sends the thread that makes it a signal each millisecond.
class Interruptions {
 public:
  Interruptions()
      : sender([this, target = ::pthread_self()] {
          while (!isOver) {
            ::pthread_kill(target, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
          }
        }) {}
  ~Interruptions() {
    isOver = true;
    sender.join();
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

 private:
  const CountedSignal signal{SIGUSR1};
  std::atomic<bool> isOver{false};
  std::thread sender;
};

void expectTimeOutAmidSignals(int port) {
  const Interruptions interruptions;
  test::Outcome outcome = test::only(SSOCLIENT_OK);
  const auto took = test::durationOf([&] { outcome = test::call(Request::TOKEN, port, test::SHORT_LIMIT); });
  EXPECT_EQ(outcome, test::only(SSOCLIENT_TIMED_OUT));
  EXPECT_GE(took, test::SHORT_LIMIT);
  EXPECT_LT(took, test::SHORT_LIMIT + test::MARGIN);
  EXPECT_GT(arrived, 5);
}

TEST(ClientAmidSignals, KeepsItsTimeLimit) {
  test::FrameServer silent;
  silent.answer({test::silence()});
  expectTimeOutAmidSignals(silent.port());
  const test::StalledPort stalled;
  expectTimeOutAmidSignals(stalled.port());
}

TEST(ClientAmidSignals, TakesTheWholeReply) {
  test::FrameServer server;
  for (const Request request : test::ALL_REQUESTS) {
    server.answer({test::pause(test::SHORT_LIMIT / 3), test::drip(test::frame(test::goodReply(request)))});
    const Interruptions interruptions;
    EXPECT_EQ(test::call(request, server.port()), test::goodOutcome(request));
    EXPECT_GT(arrived, 5);
  }
}

TEST(ClientAmidSignals, SeesTheConnectionEnd) {
  test::FrameServer server;
  const Interruptions interruptions;
  server.answer({test::pause(test::SHORT_LIMIT / 3), test::send("\1\1")});
  EXPECT_EQ(test::call(Request::DATA, server.port()), test::only(SSOCLIENT_CONNECTION_CLOSED));
  server.answer({test::pause(test::SHORT_LIMIT / 3), test::reset()});
  EXPECT_EQ(test::call(Request::DATA, server.port()), test::only(SSOCLIENT_CONNECTION_CLOSED));
  const test::ClosedPort closed;
  EXPECT_EQ(test::call(Request::DATA, closed.port()), test::only(SSOCLIENT_CANNOT_CONNECT));
}

/// Accepts the connection that comes from the socket and breaks it, in order and then by a reset or by a reset alone.
void breakConnection(const Descriptor& listener, int socket, bool isEndedFirst) {
  Descriptor accepted(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (isEndedFirst) {
    ::shutdown(accepted.get(), SHUT_WR);
  }
  const linger atOnce{1, 0};
  ::setsockopt(accepted.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  accepted.reset();
  pollfd broken{socket, 0, 0};
  EXPECT_EQ(::poll(&broken, 1, 10000), 1);
}

TEST(ClientBeforeALostConnection, RaisesNoSignal) {
  const Descriptor listener = test::bindLoopback();
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  for (const bool isEndedFirst : {true, false}) {
    const CountedSignal pipe(SIGPIPE);
    test::WatchedCalls calls;
    calls.beforeSend = [&](int socket) { breakConnection(listener, socket, isEndedFirst); };
    for (const Request request : test::ALL_REQUESTS) {
      EXPECT_EQ(test::call(request, test::portOf(listener)), test::only(SSOCLIENT_CONNECTION_CLOSED));
    }
    EXPECT_EQ(arrived, 0);
  }
}

/// The same connection, written to without the library's care.
TEST(ClientBeforeALostConnection, AnotherProgramGetsASignal) {
  const Descriptor listener = test::bindLoopback();
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  const Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  ASSERT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
  ASSERT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
  breakConnection(listener, socket.get(), true);
  const CountedSignal pipe(SIGPIPE);
  EXPECT_EQ(::send(socket.get(), "x", 1, 0), -1);
  EXPECT_EQ(arrived, 1);
}

}  // namespace
