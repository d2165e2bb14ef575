#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <utility>

#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/SocketPair.h"
#include "util/Descriptor.h"
#include "util/Frames.h"
#include "util/Signals.h"

namespace {

using namespace velo::ssoService;

using Patience = FrameReader::Patience;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using Connection = test::SocketPair;

constexpr std::uint32_t LIMIT = 1024 * 1024;

std::string prefix(std::uint32_t length) {
  std::string bytes;
  for (unsigned shift = 32; shift > 0; shift -= 8) {
    bytes += static_cast<char>((length >> (shift - 8)) & 0xFFU);
  }
  return bytes;
}

std::string frame(const std::string& payload) {
  return prefix(static_cast<std::uint32_t>(payload.size())) + payload;
}

std::string readAll(int descriptor) {
  std::string bytes;
  char chunk[65536];
  for (ssize_t count = 0; (count = ::read(descriptor, chunk, sizeof chunk)) > 0;) {
    bytes.append(chunk, static_cast<std::size_t>(count));
  }
  return bytes;
}

/// Reads a frame that another thread sends, so that it may be larger than what a socket holds.
void expectFrame(const std::string& sent, const std::string& payload, bool oneByOne = false) {
  Connection connection;
  std::thread sender([&] {
    const std::size_t piece = oneByOne ? 1 : sent.size();
    for (std::size_t done = 0; done < sent.size(); done += piece) {
      sendAll(connection.far.get(), sent.substr(done, piece));
    }
  });
  FrameReader reader(connection.near.get());
  EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
  EXPECT_EQ(reader.length(), payload.size());
  EXPECT_EQ(reader.readPayload(), Transfer::COMPLETE);
  EXPECT_EQ(reader.received(), payload.size());
  EXPECT_TRUE(reader.text() == payload);
  connection.near.reset();  // a sender that still has bytes to send is to fail, not to wait
  sender.join();
}

TEST(FrameReader, ReadsFramesOfEveryLength) {
  for (const std::size_t length : {0U, 1U, 3U, 4U, 250U, 251U, 252U, 253U, 255U, 256U, 4096U, 16383U, 16384U, 16385U,
                                   16384U + 251U, 100000U, LIMIT - 1, LIMIT}) {
    const std::string payload(length, 'x');
    expectFrame(frame(payload), payload);
  }
}

TEST(FrameReader, ReadsFramesSplitIntoSingleBytes) {
  for (const std::size_t length : {0U, 1U, 251U, 252U, 600U}) {
    const std::string payload(length, 'y');
    expectFrame(frame(payload), payload, true);
  }
}

TEST(FrameReader, IgnoresBytesBehindTheFrame) {
  for (const std::size_t length : {0U, 1U, 10U, 200U, 250U, 251U, 252U, 1000U}) {
    const std::string payload(length, 'x');
    expectFrame(frame(payload) + "surplus", payload);
    expectFrame(frame(payload) + std::string(400, 's'), payload);
    expectFrame(frame(payload) + "surplus", payload, true);
  }
}

TEST(FrameReader, KeepsWhatArrivesWithTheLength) {
  Connection connection;
  connection.send(prefix(300) + std::string(300, 'x'));
  FrameReader reader(connection.near.get());
  EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
  EXPECT_EQ(reader.received(), 251U);
  EXPECT_EQ(reader.readPayload(), Transfer::COMPLETE);
  EXPECT_EQ(reader.text(), std::string(300, 'x'));
}

TEST(FrameReader, FrameInOneSegmentNeedsNoFurtherRead) {
  Connection connection;
  connection.send(frame("payload"));
  FrameReader reader(connection.near.get());
  EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
  connection.near.reset();
  EXPECT_EQ(reader.readPayload(), Transfer::COMPLETE);
  EXPECT_EQ(reader.text(), "payload");
}

TEST(FrameReader, TextEndsAtTheFirstNul) {
  Connection connection;
  connection.send(frame(std::string("ab\0cd", 5)));
  FrameReader reader(connection.near.get());
  EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
  EXPECT_EQ(reader.readPayload(), Transfer::COMPLETE);
  EXPECT_EQ(reader.received(), 5U);
  EXPECT_EQ(reader.text(), "ab");
}

TEST(FrameReader, LengthIsUnsignedAndBigEndian) {
  for (const std::uint32_t length :
       {0x00000000U, 0x00000001U, 0x01020304U, 0x7fffffffU, 0x80000000U, 0xff000000U, 0xffffffffU}) {
    Connection connection;
    connection.send(prefix(length));
    FrameReader reader(connection.near.get());
    EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
    EXPECT_EQ(reader.length(), length);
  }
}

TEST(FrameReader, LengthOverTheLimitFailsAtOnce) {
  for (const std::uint32_t length : {LIMIT + 1, LIMIT + 2, 0x7fffffffU, 0x80000000U, 0xfffffffbU, 0xffffffffU}) {
    Connection connection;  // open all the while: nothing is waited for
    connection.send(prefix(length) + "begun");
    FrameReader reader(connection.near.get());
    EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
    EXPECT_EQ(reader.readPayload(), Transfer::FAILED) << length;
    EXPECT_EQ(reader.received(), 5U);
  }
}

TEST(FrameReader, ConnectionClosedAtEveryByte) {
  const std::string sent = frame(std::string(300, 'x'));
  for (std::size_t count = 0; count < sent.size(); ++count) {
    Connection connection;
    connection.send(sent.substr(0, count));
    connection.far.reset();
    FrameReader reader(connection.near.get());
    if (count < 4) {
      EXPECT_EQ(reader.readLength(), Transfer::CLOSED) << count;
      continue;
    }
    EXPECT_EQ(reader.readLength(), Transfer::COMPLETE) << count;
    EXPECT_EQ(reader.readPayload(), Transfer::CLOSED) << count;
    EXPECT_EQ(reader.received(), count - 4) << count;
  }
}

TEST(FrameReader, FailedReadIsTold) {
  {
    FrameReader reader(Descriptor::NONE);
    errno = 0;
    EXPECT_EQ(reader.readLength(), Transfer::FAILED);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(reader.received(), 0U);
  }
  Connection connection;
  connection.send(prefix(10) + "part");
  FrameReader reader(connection.near.get());
  EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
  connection.near.reset();
  EXPECT_EQ(reader.readPayload(), Transfer::FAILED);
  EXPECT_EQ(reader.received(), 4U);
}

TEST(FrameReader, ReadThatWouldBlockFails) {
  int ends[2] = {Descriptor::NONE, Descriptor::NONE};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
  const Descriptor near(ends[0]);
  const Descriptor far(ends[1]);
  FrameReader reader(near.get());
  EXPECT_EQ(reader.readLength(), Transfer::FAILED);
  EXPECT_EQ(errno, EAGAIN);
}

TEST(FrameReader, LeavesItsDescriptorOpen) {
  Connection connection;
  connection.send(frame("first"));
  {
    FrameReader reader(connection.near.get());
    EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
  }
  connection.send(frame("second"));
  FrameReader reader(connection.near.get());
  EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
  EXPECT_EQ(reader.readPayload(), Transfer::COMPLETE);
  EXPECT_EQ(reader.text(), "second");
}

TEST(FrameReader, PatienceUntilStopReadsAsEverWithoutAStop) {
  Connection connection;
  connection.send(frame("payload"));
  FrameReader reader(connection.near.get(), Patience::UNTIL_STOP);
  EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
  EXPECT_EQ(reader.readPayload(), Transfer::COMPLETE);
  EXPECT_EQ(reader.text(), "payload");
  connection.far.reset();
  EXPECT_EQ(FrameReader(connection.near.get(), Patience::UNTIL_STOP).readLength(), Transfer::CLOSED);
}

// Stop signals are a whole process's, so a child gets them.

TEST(FrameReaderAtStop, WaitEndsASecondAfterTheStopLikeAnInterruptedRead) {
  EXPECT_EQ(test::runInChild([] {
              takeSignals();
              ::raise(SIGTERM);
              const Connection silent;
              FrameReader reader(silent.near.get(), Patience::UNTIL_STOP);
              const auto begin = steady_clock::now();
              EXPECT_EQ(reader.readLength(), Transfer::FAILED);
              EXPECT_EQ(errno, EINTR);
              EXPECT_GE(steady_clock::now() - begin, milliseconds(990));
              EXPECT_LT(steady_clock::now() - begin, seconds(5));
              const auto again = steady_clock::now();
              for (int number = 0; number < 10; ++number) {
                EXPECT_EQ(reader.readLength(), Transfer::FAILED);
                EXPECT_EQ(errno, EINTR);
              }
              EXPECT_LT(steady_clock::now() - again, seconds(9)) << "the second is granted each time";
            }),
            0);
}

TEST(FrameReaderAtStop, WhatHasArrivedIsStillRead) {
  EXPECT_EQ(test::runInChild([] {
              takeSignals();
              ::raise(SIGINT);
              const Connection connection;
              connection.send(frame(std::string(1000, 'x')));
              FrameReader reader(connection.near.get(), Patience::UNTIL_STOP);
              EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
              EXPECT_EQ(reader.readPayload(), Transfer::COMPLETE);
              EXPECT_EQ(reader.text(), std::string(1000, 'x'));
            }),
            0);
}

TEST(FrameReaderAtStop, OtherSideThatClosesIsStillSeen) {
  EXPECT_EQ(test::runInChild([] {
              takeSignals();
              ::raise(SIGTERM);
              Connection connection;
              connection.send(prefix(10) + "part");
              connection.far.reset();
              FrameReader reader(connection.near.get(), Patience::UNTIL_STOP);
              EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
              EXPECT_EQ(reader.readPayload(), Transfer::CLOSED);
            }),
            0);
}

TEST(FrameReaderAtStop, StopDuringTheWaitEndsItWhetherPendingOrHandled) {
  for (const bool isHandled : {false, true}) {
    EXPECT_EQ(test::runInChild([isHandled] {
                takeSignals();
                const Connection connection;
                connection.send(prefix(10) + "part");
                FrameReader reader(connection.near.get(), Patience::UNTIL_STOP);
                EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
                std::thread stopping([isHandled] {
                  ::kill(::getpid(), SIGTERM);
                  if (isHandled) {
                    const test::LogCapture log;
                    deliverSignals();
                  }
                });
                EXPECT_EQ(reader.readPayload(), Transfer::FAILED);
                EXPECT_EQ(errno, EINTR);
                EXPECT_EQ(reader.received(), 4U);
                stopping.join();
              }),
              0)
        << isHandled;
  }
}

TEST(FrameReaderAtStop, UnlimitedPatienceIgnoresIt) {
  EXPECT_EQ(test::runInChild([] {
              takeSignals();
              ::raise(SIGTERM);
              Connection connection;
              std::thread sender([&] { connection.send(frame("payload")); });
              FrameReader reader(connection.near.get());
              EXPECT_EQ(reader.readLength(), Transfer::COMPLETE);
              EXPECT_EQ(reader.readPayload(), Transfer::COMPLETE);
              EXPECT_EQ(reader.text(), "payload");
              sender.join();
            }),
            0);
}

TEST(SendAll, SendsAllInAsManyWritesAsItTakes) {
  for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{104}, std::size_t{5000000}}) {
    Connection connection;
    const std::string bytes(length, 'x');
    std::string received;
    std::thread receiver([&] { received = readAll(connection.near.get()); });
    EXPECT_EQ(sendAll(connection.far.get(), bytes), Transfer::COMPLETE);
    connection.far.reset();
    receiver.join();
    EXPECT_TRUE(received == bytes) << length;
  }
}

TEST(SendAll, SendsNulsToo) {
  Connection connection;
  EXPECT_EQ(sendAll(connection.far.get(), std::string("a\0b", 3)), Transfer::COMPLETE);
  connection.far.reset();
  EXPECT_EQ(readAll(connection.near.get()), std::string("a\0b", 3));
}

TEST(SendAll, ToAClosedConnectionFailsWithoutASignal) {
  EXPECT_EQ(test::runInChild([] {
              std::signal(SIGPIPE, SIG_DFL);
              Connection connection;
              connection.near.reset();
              EXPECT_EQ(sendAll(connection.far.get(), "text"), Transfer::FAILED);
              EXPECT_EQ(errno, EPIPE);
            }),
            0);
}

TEST(SendAll, ThatCannotSendFails) {
  EXPECT_EQ(sendAll(Descriptor::NONE, "text"), Transfer::FAILED);
  EXPECT_EQ(errno, EBADF);
}

TEST(MakeFrame, PutsTheLengthBeforeTheText) {
  struct Row {
    std::string text;
    std::string bytes;
  };
  const Row rows[] = {{"", std::string("\0\0\0\0", 4)},
                      {"{}", std::string("\0\0\0\2{}", 6)},
                      {std::string("ab\0cd", 5), std::string("\0\0\0\2ab", 6)},
                      {std::string("\0", 1), std::string("\0\0\0\0", 4)},
                      {std::string(100, 'x'), std::string("\0\0\0\x64", 4) + std::string(100, 'x')},
                      {std::string(0x10203, 'y'), std::string("\0\1\2\3", 4) + std::string(0x10203, 'y')}};
  for (const Row& row : rows) {
    EXPECT_TRUE(makeFrame(row.text) == row.bytes) << row.text.size();
  }
}

}  // namespace
