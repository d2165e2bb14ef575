// A log on standard output whose other side does not read.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <thread>

#include "logging/StandardOutput.h"
#include "support/ChildProcess.h"
#include "util/Descriptor.h"
#include "util/Loopback.h"

namespace test {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using velo::ssoService::Descriptor;

constexpr int PIPE_BYTES = 16384;

/// A pipe in the place of standard output. For a child.
class Pipe {
 public:
  Pipe() {
    int ends[2] = {Descriptor::NONE, Descriptor::NONE};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    reading.reset(ends[0]);
    const Descriptor writing(ends[1]);
    ::fcntl(writing.get(), F_SETPIPE_SZ, PIPE_BYTES);
    ::fcntl(writing.get(), F_SETFL, 0);
    ::dup2(writing.get(), STDOUT_FILENO);
  }

  /// What is there, about as much as the limit says.
  std::string take(std::size_t limit = PIPE_BYTES) const {
    std::string taken;
    char chunk[4096];
    for (ssize_t count = 0; taken.size() < limit && (count = ::read(reading.get(), chunk, sizeof chunk)) > 0;) {
      taken.append(chunk, static_cast<std::size_t>(count));
    }
    return taken;
  }

  void close() { reading.reset(); }

 private:
  Descriptor reading;
};

std::chrono::milliseconds timeOf(const std::function<void()>& action) {
  const auto begin = steady_clock::now();
  action();
  return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - begin);
}

TEST(StandardOutputTest, TextsOfEveryLengthAreWrittenAsTheyAre) {
  EXPECT_EQ(runInChild([] {
              const Pipe pipe;
              StandardOutput output;
              for (const std::size_t length : {0U, 1U, 4095U, 4096U, 4097U, 12288U}) {
                output.write(std::string(length, 'x'));
                EXPECT_EQ(pipe.take(), std::string(length, 'x')) << length;
              }
            }),
            0);
}

TEST(StandardOutputTest, FullPipeIsWaitedForThenWhatComesIsDroppedAtOnceAndCounted) {
  EXPECT_EQ(runInChild([] {
              const Pipe pipe;
              StandardOutput output;
              const std::string line = std::string(4095, 'x') + "\n";
              const std::string full = line + line + line + line;
              output.write(full);
              const auto first = timeOf([&] { output.write("first\n"); });
              EXPECT_GE(first, 5s);
              EXPECT_LT(first, 30s);
              EXPECT_LT(timeOf([&] { output.write("second\n"); }), 5s);
              EXPECT_EQ(pipe.take(), full);
              output.write("third\n");
              output.write("fourth\n");
              EXPECT_EQ(pipe.take(), "LOG LOST 2 lines\nthird\nfourth\n");
              output.write(full);
              EXPECT_LT(timeOf([&] { output.write("fifth\n"); }), 5s) << "one wait in vain is enough for a while";
              EXPECT_EQ(pipe.take(), full);
            }),
            0);
}

TEST(StandardOutputTest, TextThatIsCutGetsALineEnd) {
  EXPECT_EQ(runInChild([] {
              const Pipe pipe;
              StandardOutput output;
              output.write(std::string(PIPE_BYTES + 1, 'x'));
              EXPECT_EQ(pipe.take(), std::string(PIPE_BYTES, 'x'));
              output.write("next\n");
              EXPECT_EQ(pipe.take(), "\nLOG LOST 1 lines\nnext\n");
            }),
            0);
}

TEST(StandardOutputTest, SlowReaderGetsEverything) {
  EXPECT_EQ(runInChild([] {
              const Pipe pipe;
              StandardOutput output;
              const std::string text(200000, 'x');
              std::thread writer([&] { output.write(text); });
              std::string taken;
              while (taken.size() < text.size()) {
                std::this_thread::sleep_for(5ms);
                taken += pipe.take();
              }
              writer.join();
              EXPECT_TRUE(taken == text);
            }),
            0);
}

TEST(StandardOutputTest, ReaderThatIsTooSlowLosesTheRest) {
  EXPECT_EQ(runInChild([] {
              const Pipe pipe;
              std::atomic<bool> isDone{false};
              std::thread reader([&] {
                while (!isDone) {
                  std::this_thread::sleep_for(1s);
                  pipe.take(4096);
                }
              });
              StandardOutput output;
              const auto duration = timeOf([&] { output.write(std::string(1000000, 'x')); });
              EXPECT_GE(duration, 5s);
              EXPECT_LT(duration, 30s);
              isDone = true;
              reader.join();
            }),
            0);
}

/// poll tells of room when a third of a socket's buffer is free, which may be less than a piece.
TEST(StandardOutputTest, SocketWithLittleRoomIsNotWaitedForInTheWrite) {
  EXPECT_EQ(runInChild([] {
              const int small = 4000;
              const Descriptor listener(::socket(AF_INET, SOCK_STREAM, 0));
              ::setsockopt(listener.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
              sockaddr_in address = velo::ssoService::loopbackAddress(0);
              socklen_t length = sizeof address;
              ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
              ASSERT_EQ(::listen(listener.get(), 1), 0);
              ASSERT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
              const Descriptor writing(::socket(AF_INET, SOCK_STREAM, 0));
              ::setsockopt(writing.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
              ASSERT_EQ(::connect(writing.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
              ::dup2(writing.get(), STDOUT_FILENO);
              StandardOutput output;
              const auto duration = timeOf([&] {
                for (int number = 0; number < 100; ++number) {
                  output.write(std::string(4096, 'x'));
                }
              });
              EXPECT_GE(duration, 5s) << "the buffers are not full";
              EXPECT_LT(duration, 30s);
            }),
            0);
}

std::atomic<bool> isEnding{false};

class SlowReader : public ::testing::TestWithParam<std::chrono::milliseconds> {};

TEST_P(SlowReader, HasFiveSecondsForAllLinesTogetherOnceTheProcessIsEnding) {
  EXPECT_EQ(runInChild([] {
              const Pipe pipe;
              std::atomic<bool> isDone{false};
              std::thread reader([&] {
                while (!isDone) {
                  std::this_thread::sleep_for(GetParam());
                  pipe.take(4096);
                }
              });
              StandardOutput output;
              output.hurryWhen([] { return isEnding.load(); });
              const auto writeLines = [&](int count) {
                for (int number = 0; number < count; ++number) {
                  output.write(std::string(4095, 'x') + "\n");
                }
              };
              const int linesInSixSeconds = static_cast<int>(6s / GetParam());
              EXPECT_GE(timeOf([&] { writeLines(4 + linesInSixSeconds); }), 5500ms) << "each has its own five seconds";
              isEnding = true;
              const auto duration = timeOf([&] { writeLines(5 * linesInSixSeconds); });
              EXPECT_GE(duration, 4s);
              EXPECT_LT(duration, 20s);
              isDone = true;
              reader.join();
            }),
            0);
}

INSTANTIATE_TEST_SUITE_P(Paces, SlowReader, ::testing::Values(50ms, 1s));

TEST(StandardOutputTest, WithoutAReaderNothingIsWaitedFor) {
  EXPECT_EQ(runInChild([] {
              ::signal(SIGPIPE, SIG_IGN);
              Pipe pipe;
              pipe.close();
              StandardOutput output;
              EXPECT_LT(timeOf([&] { output.write("text\n"); }), 5s);
              ::close(STDOUT_FILENO);
              EXPECT_LT(timeOf([&] { output.write("text\n"); }), 5s);
            }),
            0);
}

}  // namespace
}  // namespace test
