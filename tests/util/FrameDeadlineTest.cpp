// Transfers that have to be done by a deadline.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include "support/ChildProcess.h"
#include "support/KeyService.h"
#include "support/SocketPair.h"
#include "util/Frames.h"
#include "util/Signals.h"

namespace test {
namespace {

using namespace velo::ssoService;
using namespace std::chrono_literals;
using Patience = FrameReader::Patience;
using std::chrono::steady_clock;

constexpr std::chrono::milliseconds LIMIT = 1s;

class FrameDeadline : public ::testing::TestWithParam<Patience>, public SocketPair {
 protected:
  /// Expects that the time since the start is about the limit.
  void expectLimit() const {
    EXPECT_GE(steady_clock::now() - start, LIMIT);
    EXPECT_LT(steady_clock::now() - start, 10s);
  }

  const steady_clock::time_point start = steady_clock::now();
  const Deadline deadline = start + LIMIT;
};

TEST_P(FrameDeadline, SilenceIsWaitedForUntilThen) {
  FrameReader reader(near.get(), GetParam(), deadline);
  EXPECT_EQ(reader.readLength(), Transfer::TIMED_OUT);
  expectLimit();
}

TEST_P(FrameDeadline, CountsForTheWholeFrame) {
  std::thread dribbling([&] {
    for (const char byte : frame(std::string(1000, 'x'))) {
      if (::send(far.get(), &byte, 1, MSG_NOSIGNAL) != 1) {
        return;
      }
      std::this_thread::sleep_for(20ms);
    }
  });
  FrameReader reader(near.get(), GetParam(), deadline);
  EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
  EXPECT_EQ(reader.readPayload(), Transfer::TIMED_OUT);
  EXPECT_GT(reader.received(), 0U);
  EXPECT_LT(reader.received(), 1000U);
  expectLimit();
  near.reset();
  dribbling.join();
}

TEST_P(FrameDeadline, LateBytesAreNotTaken) {
  send(frame("payload"));
  std::this_thread::sleep_until(*deadline);
  EXPECT_EQ(FrameReader(near.get(), GetParam(), deadline).readLength(), Transfer::TIMED_OUT);
}

TEST_P(FrameDeadline, TimeBetweenLengthAndPayloadDoesNotCount) {
  send(frame(std::string(1000, 'x')));
  FrameReader reader(near.get(), GetParam(), deadline);
  EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
  std::this_thread::sleep_until(*deadline + 1s);
  EXPECT_EQ(reader.readPayload(), Transfer::COMPLETE);
  EXPECT_EQ(reader.text(), std::string(1000, 'x'));
}

TEST_P(FrameDeadline, CountsFromWhereItWasWhenThePayloadIsAwaited) {
  send(frame(std::string(1000, 'x')).substr(0, 500));
  FrameReader reader(near.get(), GetParam(), deadline);
  EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
  const auto rest = *deadline - steady_clock::now();
  std::this_thread::sleep_until(*deadline);
  const auto begin = steady_clock::now();
  EXPECT_EQ(reader.readPayload(), Transfer::TIMED_OUT);
  EXPECT_GE(steady_clock::now() - begin, rest);
  expectLimit();
}

TEST_P(FrameDeadline, FrameInTimeIsRead) {
  send(frame("payload"));
  FrameReader reader(near.get(), GetParam(), steady_clock::now() + 30s);
  EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
  EXPECT_EQ(reader.readPayload(), Transfer::COMPLETE);
  EXPECT_EQ(reader.text(), "payload");
  far.reset();
  EXPECT_EQ(FrameReader(near.get(), GetParam(), steady_clock::now() + 30s).readLength(), Transfer::CLOSED);
}

INSTANTIATE_TEST_SUITE_P(BothPatiences, FrameDeadline, ::testing::Values(Patience::UNLIMITED, Patience::UNTIL_STOP));

using SendDeadline = FrameDeadline;

TEST_P(SendDeadline, OtherSideThatDoesNotReadIsWaitedForUntilThen) {
  EXPECT_EQ(sendAll(near.get(), std::string(5000000, 'x'), deadline), Transfer::TIMED_OUT);
  expectLimit();
}

TEST_P(SendDeadline, CountsForAllBytes) {
  std::thread sipping([&] {
    char sip[100];
    while (::recv(far.get(), sip, sizeof sip, 0) > 0) {
      std::this_thread::sleep_for(1ms);
    }
  });
  EXPECT_EQ(sendAll(near.get(), std::string(5000000, 'x'), deadline), Transfer::TIMED_OUT);
  expectLimit();
  ::shutdown(far.get(), SHUT_RDWR);
  sipping.join();
}

TEST_P(SendDeadline, BytesThatAreTakenInTimeAllArrive) {
  std::size_t received = 0;
  std::thread receiver([&] {
    char chunk[4096];
    for (ssize_t count = 0; (count = ::recv(far.get(), chunk, sizeof chunk, 0)) > 0;) {
      received += static_cast<std::size_t>(count);
    }
  });
  EXPECT_EQ(sendAll(near.get(), std::string(5000000, 'x'), steady_clock::now() + 30s), Transfer::COMPLETE);
  near.reset();
  receiver.join();
  EXPECT_EQ(received, 5000000U);
}

TEST_P(SendDeadline, FailureIsTold) {
  far.reset();
  EXPECT_EQ(sendAll(near.get(), "x", steady_clock::now() + 30s), Transfer::FAILED);
}

INSTANTIATE_TEST_SUITE_P(Once, SendDeadline, ::testing::Values(Patience::UNLIMITED));

TEST(FrameDeadlineAtStop, StopEndsTheWaitBeforeTheDeadline) {
  EXPECT_EQ(runInChild([] {
              takeSignals();
              ::raise(SIGTERM);
              const SocketPair silent;
              const auto start = steady_clock::now();
              FrameReader reader(silent.near.get(), Patience::UNTIL_STOP, start + 60s);
              EXPECT_EQ(reader.readLength(), Transfer::FAILED);
              EXPECT_LT(steady_clock::now() - start, 30s);
            }),
            0);
}

}  // namespace
}  // namespace test
