// The lines that log_message writes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "logging/logging.h"
#include "support/LogReset.h"
#include "support/OutputCapture.h"
#include "support/SystemTime.h"
#include "support/TemporaryDirectory.h"

namespace {

/// log_message without the compiler's check of formats, to pass it what no source would.
void (*const logUnchecked)(const char* file, int line, int level, const char* format, ...) = log_message;

class LogMessage : public testing::Test {
 protected:
  /// What the action writes to standard output with the log on at this level there, "LOG START" left out.
  static std::string logged(const std::function<void()>& action, int level = LOG_LEVEL_VERBOSE, int timestamps = 0) {
    return test::captured(stdout, [&] {
      test::captured(stdout, [&] { log_init(nullptr, level, timestamps); });
      action();
    });
  }

  test::LogReset reset;
};

TEST(LogDeathTest, BeforeAnySettingAllLevelsGoToStandardOutputWithoutTimes) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";  // a process whose log nobody has touched
  const auto action = [] {
    static_cast<void>(std::fflush(stdout));
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    for (int level = 0; level <= 6; ++level) {
      log_message("Source", level, level, "level %d", level);
    }
    ::_exit(0);
  };
  EXPECT_EXIT(action(), testing::ExitedWithCode(0),
              "^\\[Source:0\\] level 0\n\\[Source:1\\] level 1\n\\[Source:2\\] level 2\n\\[Source:3\\] level 3\n"
              "\\[Source:4\\] level 4\n\\[Source:5\\] level 5\n$");
}

TEST_F(LogMessage, BeginsWithSourceAndLine) {
  EXPECT_EQ(logged([] { log_message("DiscoverySSOManager", 972, LOG_LEVEL_INFO, "CLOUD_ENV: %s", "prod"); }),
            "[DiscoverySSOManager:972] CLOUD_ENV: prod\n");
  EXPECT_EQ(logged([] { log_message("kcProviders/OrvexKCProvider", 1, LOG_LEVEL_ERROR, "%d of %d", 2, 3); }),
            "[kcProviders/OrvexKCProvider:1] 2 of 3\n");
}

TEST_F(LogMessage, IsWrittenWhenItsLevelIsAtMostTheLogs) {
  for (int logLevel = 0; logLevel <= 5; ++logLevel) {
    for (int level = 1; level <= 6; ++level) {
      EXPECT_EQ(logged([level] { log_message("a", 1, level, "text"); }, logLevel),
                level <= logLevel ? "[a:1] text\n" : "")
          << "message " << level << ", log " << logLevel;
    }
  }
}

TEST_F(LogMessage, InfoLogDropsDebugAndKeepsInfo) {
  EXPECT_EQ(logged(
                [] {
                  log_message("a", 1, LOG_LEVEL_DEBUG, "debug");
                  log_message("a", 2, LOG_LEVEL_INFO, "info");
                },
                LOG_LEVEL_INFO),
            "[a:2] info\n");
}

TEST_F(LogMessage, OfANegativeLevelIsAlwaysWritten) {
  EXPECT_EQ(logged([] { log_message("a", 1, -1, "text"); }, LOG_LEVEL_OFF), "[a:1] text\n");
  EXPECT_EQ(logged([] { log_message("a", 1, -1000, "text"); }, LOG_LEVEL_ERROR), "[a:1] text\n");
}

TEST_F(LogMessage, WithoutAFormatIsDropped) {
  EXPECT_EQ(logged([] { logUnchecked("a", 1, LOG_LEVEL_ERROR, nullptr); }), "");
}

TEST_F(LogMessage, LineEndDependsOnTheFormatAlone) {
  EXPECT_EQ(logged([] { log_message("a", 1, LOG_LEVEL_ERROR, "text"); }), "[a:1] text\n");
  EXPECT_EQ(logged([] { log_message("a", 1, LOG_LEVEL_ERROR, "text\n"); }), "[a:1] text\n");
  EXPECT_EQ(logged([] { log_message("a", 1, LOG_LEVEL_ERROR, "text\n\n"); }), "[a:1] text\n\n");
  EXPECT_EQ(logged([] { log_message("a", 1, LOG_LEVEL_ERROR, "\n"); }), "[a:1] \n");
  EXPECT_EQ(logged([] { log_message("a", 1, LOG_LEVEL_ERROR, "%s", "a\n"); }), "[a:1] a\n\n");
  EXPECT_EQ(logged([] { log_message("a", 1, LOG_LEVEL_ERROR, "%s", ""); }), "[a:1] \n");
  EXPECT_EQ(logged([] { log_message("a", 1, LOG_LEVEL_ERROR, "%s\n", "a"); }), "[a:1] a\n");
}

TEST_F(LogMessage, EmptyFormatGetsNoLineEnd) {
  EXPECT_EQ(logged([] {
              logUnchecked("a", 1, LOG_LEVEL_ERROR, "");
              log_message("b", 2, LOG_LEVEL_ERROR, "text");
            }),
            "[a:1] [b:2] text\n");
}

TEST_F(LogMessage, PercentSignsInArgumentsAreText) {
  EXPECT_EQ(logged([] { log_message("a", 1, LOG_LEVEL_ERROR, "%s", "100%s %n %d"); }), "[a:1] 100%s %n %d\n");
}

TEST_F(LogMessage, TimePrefixIsTheLocalTimeOfDay) {
  const std::time_t moment = 1700000000;
  std::tm local{};
  localtime_r(&moment, &local);
  char expected[32];
  ASSERT_NE(std::strftime(expected, sizeof expected, "%H:%M:%S", &local), 0U);
  const test::StoppedTime time(moment);
  EXPECT_THAT(logged([] { log_message("a", 1, LOG_LEVEL_ERROR, "text"); }, LOG_LEVEL_INFO, 1),
              testing::MatchesRegex(std::string(expected) + "\\.[0-9][0-9][0-9] \\[a:1\\] text\n"));
}

TEST_F(LogMessage, TimePrefixPadsWithZeros) {
  std::tm early{};
  early.tm_year = 125;
  early.tm_mday = 2;
  early.tm_hour = 3;
  early.tm_min = 4;
  early.tm_sec = 5;
  early.tm_isdst = -1;
  const test::StoppedTime time(std::mktime(&early));
  EXPECT_THAT(logged([] { log_message("a", 1, LOG_LEVEL_ERROR, "text"); }, LOG_LEVEL_INFO, 1),
              testing::MatchesRegex("03:04:05\\.[0-9][0-9][0-9] \\[a:1\\] text\n"));
}

TEST_F(LogMessage, TimeZoneCountsAtOnceWhenTheProcessReadsItAnew) {
  const test::StoppedTime time(1700000000);
  const auto use = [](const char* zone) {
    static_cast<void>(zone != nullptr ? ::setenv("TZ", zone, 1) : ::unsetenv("TZ"));
    tzset();
  };
  const auto hourIn = [&](const char* zone) {
    use(zone);
    return logged([] { log_message("a", 1, LOG_LEVEL_ERROR, "text"); }, LOG_LEVEL_INFO, 1).substr(0, 2);
  };
  const char* set = std::getenv("TZ");
  const std::string before = set != nullptr ? set : "";
  const std::string hours = hourIn("UTC0") + hourIn("EAST-5") + hourIn("UTC0");
  use(set != nullptr ? before.c_str() : nullptr);
  EXPECT_EQ(hours, "220322");
}

TEST_F(LogMessage, TimePrefixEndsInTheMillisecondsOfTheRealClock) {
  const auto milliseconds = [] {
    std::timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
  };
  const std::int64_t before = milliseconds();
  const std::string line = logged([] { log_message("a", 1, LOG_LEVEL_ERROR, "text"); }, LOG_LEVEL_INFO, 1);
  const std::int64_t after = milliseconds();
  ASSERT_GE(line.size(), 12U);
  const long printed = std::stol(line.substr(9, 3));
  const std::int64_t elapsed = (printed - before % 1000 + 1000) % 1000;
  EXPECT_LE(elapsed, after - before) << line;
}

TEST_F(LogMessage, IsFlushedAtOnce) {
  test::TemporaryDirectory directory;
  log_init(directory.file("log").c_str(), LOG_LEVEL_INFO, 0);
  log_message("a", 1, LOG_LEVEL_INFO, "text");
  EXPECT_THAT(directory.read(directory.names().at(0)), testing::EndsWith("\n[a:1] text\n"));
}

TEST_F(LogMessage, OfAnyLengthIsOneLine) {
  for (std::size_t length = 4070; length < 4110; ++length) {
    const std::string text(length, 'x');
    EXPECT_EQ(logged([&] { log_message("a", 1, LOG_LEVEL_ERROR, "%s", text.c_str()); }), "[a:1] " + text + "\n")
        << length;
    EXPECT_EQ(logged([&] { log_message("a", 1, LOG_LEVEL_ERROR, "%s\n", text.c_str()); }), "[a:1] " + text + "\n")
        << length;
  }
  const std::string text(1024 * 1024 + 1, 'y');
  EXPECT_TRUE(logged([&] { log_message("a", 1, LOG_LEVEL_ERROR, "<%s>", text.c_str()); }) == "[a:1] <" + text + ">\n");
}

TEST_F(LogMessage, LongFormatAndLongSourceAreWrittenWhole) {
  const std::string text(5000, 'x');
  EXPECT_EQ(logged([&] { logUnchecked("a", 1, LOG_LEVEL_ERROR, text.c_str()); }), "[a:1] " + text + "\n");
  EXPECT_EQ(logged([&] { log_message(text.c_str(), 1, LOG_LEVEL_ERROR, "text"); }), "[" + text + ":1] text\n");
}

TEST_F(LogMessage, LeavesErrnoAsItWas) {
  const auto errnoAfter = [](int level, int length) {
    const std::string text(static_cast<std::size_t>(length), 'x');
    errno = ENOTEMPTY;
    log_message("a", 1, level, "%s", text.c_str());
    return errno;
  };
  std::vector<int> seen;
  logged(
      [&] {
        seen = {errnoAfter(LOG_LEVEL_ERROR, 1), errnoAfter(LOG_LEVEL_ERROR, 5000), errnoAfter(LOG_LEVEL_VERBOSE, 1)};
      },
      LOG_LEVEL_INFO);
  EXPECT_THAT(seen, testing::Each(ENOTEMPTY));
}

TEST_F(LogMessage, LeavesErrnoAsItWasWhenItsFileCannotBeReplaced) {
  test::StoppedTime time(1700000000);
  int seen = 0;
  test::captured(stdout, [&] {
    test::captured(stderr, [&] {
      {
        const test::TemporaryDirectory directory;
        log_init(directory.file("log").c_str(), LOG_LEVEL_INFO, 0);
        log_set_rotation_hours(1);
      }
      time.advance(3600);
      errno = ENOTEMPTY;
      log_message("a", 1, LOG_LEVEL_INFO, "text");
      seen = errno;
    });
  });
  EXPECT_EQ(seen, ENOTEMPTY);
}

/// Writes numbered lines of many lengths from several threads at once.
void logFromThreads(int threads, int lines) {
  std::vector<std::thread> running;
  for (int thread = 0; thread < threads; ++thread) {
    running.emplace_back([thread, lines] {
      for (int line = 0; line < lines; ++line) {
        const std::string text(static_cast<std::size_t>(line * 37 % 2500), static_cast<char>('a' + thread));
        log_message("thread", thread, LOG_LEVEL_INFO, "%d <%s>", line, text.c_str());
      }
    });
  }
  for (std::thread& thread : running) {
    thread.join();
  }
}

/// The lines that logFromThreads writes for one thread.
std::string linesOfThread(int thread, int lines) {
  std::string all;
  for (int line = 0; line < lines; ++line) {
    const std::string text(static_cast<std::size_t>(line * 37 % 2500), static_cast<char>('a' + thread));
    all += "[thread:" + std::to_string(thread) + "] " + std::to_string(line) + " <" + text + ">\n";
  }
  return all;
}

void expectLinesOfThreads(const std::string& output, int threads, int lines) {
  std::vector<std::string> ofThread(static_cast<std::size_t>(threads));
  std::size_t begin = 0;
  while (begin < output.size()) {
    const std::size_t end = std::min(output.find('\n', begin), output.size() - 1) + 1;
    const std::string line = output.substr(begin, end - begin);
    begin = end;
    ASSERT_THAT(line, testing::StartsWith("[thread:"));
    const auto thread = static_cast<std::size_t>(line.at(8) - '0');
    ASSERT_LT(thread, ofThread.size()) << line;
    ofThread[thread] += line;
  }
  for (int thread = 0; thread < threads; ++thread) {
    EXPECT_TRUE(ofThread[static_cast<std::size_t>(thread)] == linesOfThread(thread, lines)) << "thread " << thread;
  }
}

TEST_F(LogMessage, LinesOfThreadsNeverMix) {
  expectLinesOfThreads(logged([] { logFromThreads(6, 300); }), 6, 300);
}

TEST_F(LogMessage, LinesOfThreadsNeverMixInAFile) {
  test::TemporaryDirectory directory;
  log_init(directory.file("log").c_str(), LOG_LEVEL_INFO, 0);
  logFromThreads(6, 300);
  const std::string text = directory.read(directory.names().at(0));
  expectLinesOfThreads(text.substr(text.find('\n') + 1), 6, 300);
}

TEST_F(LogMessage, ThreadsMayLogWhileTheLogIsChanged) {
  test::TemporaryDirectory directory;
  test::StoppedTime time(1700000000);
  log_init(directory.file("log").c_str(), LOG_LEVEL_INFO, 0);
  std::thread changing([&] {
    // Each new file in a second of its own: two of the same second would be one, and the first one's lines lost.
    for (int change = 0; change < 50; ++change) {
      time.advance(1);
      log_set_level(change % 2 == 0 ? LOG_LEVEL_VERBOSE : LOG_LEVEL_INFO);
      log_open();
      time.advance(3600);
      log_set_rotation_hours(1);
    }
  });
  logFromThreads(4, 200);
  changing.join();
  std::size_t lines = 0;
  for (const std::string& name : directory.names()) {
    std::string text = directory.read(name);
    ASSERT_THAT(text, testing::StartsWith("LOG START "));
    text.erase(0, text.find('\n') + 1);
    for (std::size_t end = 0; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1)) {
      EXPECT_THAT(text.substr(0, end), testing::MatchesRegex("\\[thread:[0-3]\\] [0-9]+ <[a-d]*>"));
      ++lines;
    }
    EXPECT_TRUE(text.empty() || text.rfind("LOG END ", 0) == 0) << text;
  }
  EXPECT_EQ(lines, 4U * 200U);
}

}  // namespace
