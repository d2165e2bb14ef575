// Levels, their names and the start of the log.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "logging/logging.h"
#include "support/LogReset.h"
#include "support/OutputCapture.h"
#include "support/SystemTime.h"
#include "support/TemporaryDirectory.h"

namespace {

using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr const char* DATE = "[A-Z][a-z][a-z] [A-Z][a-z][a-z] [ 0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9] [0-9]+";

class LogLevels : public testing::Test {
 protected:
  std::string logText() const { return directory.read(directory.names().at(0)); }

  test::TemporaryDirectory directory;
  const std::string prefix = directory.file("log");
  test::LogReset reset;
};

TEST(LogLevelNames, ExactNamesHaveNumbersAndAllOthersAreOff) {
  struct Row {
    const char* name;
    int level;
  };
  for (const Row row :
       {Row{"error", 1}, Row{"warning", 2}, Row{"info", 3}, Row{"debug", 4}, Row{"verbose", 5}, Row{"ERROR", 0},
        Row{"Info", 0}, Row{"warn", 0}, Row{"warnings", 0}, Row{"inf", 0}, Row{" info", 0}, Row{"info ", 0}, Row{"", 0},
        Row{"off", 0}, Row{"3", 0}, Row{"verbose\n", 0}}) {
    EXPECT_EQ(log_level_from_name(row.name), row.level) << row.name;
  }
}

TEST_F(LogLevels, InitReturnsWhatSetLevelReturns) {
  EXPECT_EQ(log_init(prefix.c_str(), LOG_LEVEL_OFF, 0), 0);
  EXPECT_THAT(directory.names(), IsEmpty());
  EXPECT_EQ(log_init(prefix.c_str(), -1, 0), 1);
  EXPECT_EQ(log_init(prefix.c_str(), 6, 0), 1);
  EXPECT_THAT(directory.names(), IsEmpty());
  EXPECT_EQ(log_init(prefix.c_str(), LOG_LEVEL_VERBOSE, 0), 0);
  EXPECT_THAT(directory.names(), SizeIs(1));
}

TEST_F(LogLevels, FailedInitLeavesTheLogOff) {
  log_init(prefix.c_str(), 6, 0);
  EXPECT_EQ(test::captured(stdout, [] { log_message("a", 1, LOG_LEVEL_ERROR, "text"); }), "");
  EXPECT_EQ(log_set_level(LOG_LEVEL_OFF), 0);
  EXPECT_EQ(log_set_level(LOG_LEVEL_ERROR), 0);
  EXPECT_THAT(directory.names(), SizeIs(1));
}

TEST_F(LogLevels, InitWithoutPrefixStartsOnStandardOutput) {
  for (const char* none : {static_cast<const char*>(nullptr), ""}) {
    int result = -1;
    const std::string output = test::captured(stdout, [&] {
      result = log_init(none, LOG_LEVEL_DEBUG, 0);
      log_message("a", 1, LOG_LEVEL_DEBUG, "text");
    });
    EXPECT_EQ(result, 0);
    EXPECT_THAT(output, MatchesRegex("(LOG END " + std::string(DATE) + ")?LOG START " + DATE + "\n\\[a:1\\] text\n"));
  }
}

TEST_F(LogLevels, LevelOutOfRangeChangesNothing) {
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  for (const int level : {-1, 6, 100, -100}) {
    EXPECT_EQ(log_set_level(level), 1) << level;
  }
  log_message("a", 1, LOG_LEVEL_INFO, "info");
  log_message("a", 2, LOG_LEVEL_DEBUG, "debug");
  EXPECT_THAT(logText(), EndsWith("\n[a:1] info\n"));
}

TEST_F(LogLevels, SameLevelChangesNothing) {
  test::StoppedTime time(1700000000);
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  time.advance(1);
  EXPECT_EQ(log_set_level(LOG_LEVEL_INFO), 0);
  EXPECT_THAT(directory.names(), SizeIs(1));
}

TEST_F(LogLevels, ChangeBetweenLevelsKeepsTheFile) {
  test::StoppedTime time(1700000000);
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  log_message("a", 1, LOG_LEVEL_DEBUG, "dropped");
  time.advance(1);
  EXPECT_EQ(log_set_level(LOG_LEVEL_DEBUG), 0);
  log_message("a", 2, LOG_LEVEL_DEBUG, "debug");
  EXPECT_EQ(log_set_level(LOG_LEVEL_ERROR), 0);
  log_message("a", 3, LOG_LEVEL_WARNING, "dropped");
  log_message("a", 4, LOG_LEVEL_ERROR, "error");
  EXPECT_THAT(directory.names(), SizeIs(1));
  EXPECT_THAT(logText(), MatchesRegex(std::string("LOG START ") + DATE + "\n\\[a:2\\] debug\n\\[a:4\\] error\n"));
}

TEST_F(LogLevels, LevelOffClosesTheLog) {
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  EXPECT_EQ(log_set_level(LOG_LEVEL_OFF), 0);
  EXPECT_EQ(test::captured(stdout, [] { log_message("a", 1, LOG_LEVEL_ERROR, "text"); }), "");
  EXPECT_THAT(logText(), MatchesRegex(std::string("LOG START ") + DATE + "\nLOG END " + DATE));
}

TEST_F(LogLevels, LevelFromOffOpensTheLog) {
  test::StoppedTime time(1700000000);
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  log_set_level(LOG_LEVEL_OFF);
  time.advance(1);
  EXPECT_EQ(log_set_level(LOG_LEVEL_ERROR), 0);
  log_message("a", 1, LOG_LEVEL_ERROR, "text");
  const auto names = directory.names();
  ASSERT_THAT(names, SizeIs(2));
  EXPECT_THAT(directory.read(names[1]), MatchesRegex(std::string("LOG START ") + DATE + "\n\\[a:1\\] text\n"));
}

TEST_F(LogLevels, LevelOffOnStandardOutputWritesTheEndWithoutALineEnd) {
  const std::string output = test::captured(stdout, [] {
    log_init(nullptr, LOG_LEVEL_INFO, 0);
    log_set_level(LOG_LEVEL_OFF);
  });
  EXPECT_THAT(output, MatchesRegex(std::string("LOG START ") + DATE + "\nLOG END " + DATE));
}

TEST_F(LogLevels, SetLevelReturnsTheFailureToOpenAndSetsTheLevel) {
  log_init(directory.file("missing/log").c_str(), LOG_LEVEL_OFF, 0);
  int result = 0;
  const std::string output = test::captured(stdout, [&] {
    test::captured(stderr, [&] { result = log_set_level(LOG_LEVEL_INFO); });
    log_message("a", 1, LOG_LEVEL_INFO, "text");
  });
  EXPECT_EQ(result, 1);
  EXPECT_THAT(output, MatchesRegex(std::string("LOG START ") + DATE + "\n\\[a:1\\] text\n"));
}

TEST_F(LogLevels, SetLevelNameTakesTheNamesNumber) {
  log_init(prefix.c_str(), LOG_LEVEL_ERROR, 0);
  EXPECT_EQ(log_set_level_name("debug"), 0);
  log_message("a", 1, LOG_LEVEL_DEBUG, "debug");
  log_message("a", 2, LOG_LEVEL_VERBOSE, "dropped");
  EXPECT_EQ(log_set_level_name("DEBUG"), 0);
  EXPECT_THAT(logText(), MatchesRegex(std::string("LOG START ") + DATE + "\n\\[a:1\\] debug\nLOG END " + DATE));
}

TEST_F(LogLevels, InitClosesTheFormerFile) {
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  log_init(directory.file("other").c_str(), LOG_LEVEL_INFO, 0);
  const auto names = directory.names();
  ASSERT_THAT(names, SizeIs(2));
  EXPECT_THAT(directory.read(names[0]), MatchesRegex(std::string("LOG START ") + DATE + "\nLOG END " + DATE));
  EXPECT_THAT(directory.read(names[1]), MatchesRegex(std::string("LOG START ") + DATE + "\n"));
}

TEST_F(LogLevels, InitSetsTimesOnAndOff) {
  test::captured(stdout, [] { log_init(nullptr, LOG_LEVEL_INFO, 1); });
  EXPECT_THAT(test::captured(stdout, [] { log_message("a", 1, LOG_LEVEL_INFO, "text"); }),
              MatchesRegex("[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9] \\[a:1\\] text\n"));
  test::captured(stdout, [] { log_init(nullptr, LOG_LEVEL_INFO, 0); });
  EXPECT_EQ(test::captured(stdout, [] { log_message("a", 1, LOG_LEVEL_INFO, "text"); }), "[a:1] text\n");
}

}  // namespace
