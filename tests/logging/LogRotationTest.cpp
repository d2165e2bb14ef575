// New files by size and by age.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "logging/logging.h"
#include "support/LogReset.h"
#include "support/OutputCapture.h"
#include "support/SystemTime.h"
#include "support/TemporaryDirectory.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

class LogRotation : public testing::Test {
 protected:
  LogRotation() { log_init(directory.file("log").c_str(), LOG_LEVEL_INFO, 0); }

  static void writeLines(int count, std::size_t length = 100) {
    for (; count > 0; --count) {
      log_message("a", 1, LOG_LEVEL_INFO, "%s", std::string(length, 'x').c_str());
    }
  }

  std::size_t fileCount() const { return directory.names().size(); }
  std::string read(std::size_t index) const { return directory.read(directory.names().at(index)); }
  std::string newest() const { return directory.names().back(); }
  std::size_t newestSize() const {
    return static_cast<std::size_t>(std::filesystem::file_size(directory.file(newest())));
  }

  /// Fills the file with 99 lines and a last one so that it is this large.
  void writeHundredLines(std::size_t size) {
    writeLines(99, 1);
    writeLines(1, size - newestSize() - std::string("[a:1] \n").size());
  }

  test::LogReset reset;
  test::StoppedTime time{1700000000};
  test::TemporaryDirectory directory;
};

TEST_F(LogRotation, FileIsOnlyMeasuredAtTheHundredthMessage) {
  log_set_max_size_kb(1);
  time.advance(1);
  writeLines(99);
  EXPECT_EQ(fileCount(), 1U);
  writeLines(1);
  ASSERT_EQ(fileCount(), 2U);
  const std::string first = read(0);
  EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 101);
  EXPECT_THAT(first, MatchesRegex("LOG START (.|\n)*\nLOG END [^\n]*"));
  EXPECT_THAT(read(1), MatchesRegex("LOG START [^\n]*\n"));
}

TEST_F(LogRotation, CountBeginsAnewWithEachFile) {
  log_set_max_size_kb(1);
  for (std::size_t files = 2; files < 5; ++files) {
    time.advance(1);
    writeLines(99);
    EXPECT_EQ(fileCount(), files - 1);
    writeLines(1);
    EXPECT_EQ(fileCount(), files);
  }
}

TEST_F(LogRotation, CountBeginsAnewAfterAMeasurementThatChangedNothing) {
  log_set_max_size_kb(100);
  writeLines(100);
  log_set_max_size_kb(101);
  time.advance(1);
  writeLines(99, 3000);
  EXPECT_EQ(fileCount(), 1U);
  writeLines(1);
  EXPECT_EQ(fileCount(), 2U);
}

TEST_F(LogRotation, DroppedMessagesDoNotCount) {
  log_set_max_size_kb(1);
  time.advance(1);
  writeLines(99);
  log_message("a", 1, LOG_LEVEL_DEBUG, "dropped");
  EXPECT_EQ(fileCount(), 1U);
}

TEST_F(LogRotation, FileOfExactlyTheLimitIsKept) {
  log_set_max_size_kb(2);
  time.advance(1);
  writeHundredLines(2000);
  EXPECT_EQ(newestSize(), 2000U);
  EXPECT_EQ(fileCount(), 1U);
}

TEST_F(LogRotation, FileOneByteOverTheLimitIsReplaced) {
  log_set_max_size_kb(2);
  time.advance(1);
  writeHundredLines(2001);
  EXPECT_EQ(fileCount(), 2U);
}

TEST_F(LogRotation, NewLimitIsAppliedAtOnce) {
  writeLines(11);
  time.advance(1);
  log_set_max_size_kb(2);
  EXPECT_EQ(fileCount(), 1U);
  log_set_max_size_kb(1);
  EXPECT_EQ(fileCount(), 2U);
}

TEST_F(LogRotation, LimitZeroIsNone) {
  log_set_max_size_kb(1);
  log_set_max_size_kb(0);
  time.advance(1);
  writeLines(200);
  log_check_size();
  EXPECT_EQ(fileCount(), 1U);
}

TEST_F(LogRotation, LimitIsTakenIn32Bits) {
  writeLines(7);  // 784 bytes
  time.advance(1);
  log_set_max_size_kb(2147484);  // 2147484000 is negative in 32 bits: no limit
  log_set_max_size_kb(4294967);  // 4294967000 is as well
  EXPECT_EQ(fileCount(), 1U);
  log_set_max_size_kb(2147483);
  EXPECT_EQ(fileCount(), 1U);
  log_set_max_size_kb(4294968);  // 4294968000 is 704
  EXPECT_EQ(fileCount(), 2U);
}

TEST_F(LogRotation, SizeIsThatOfTheNameNotOfWhatItLinksTo) {
  time.advance(1);
  const std::string target = directory.file("zzz");
  log_init(directory.file("link").c_str(), LOG_LEVEL_OFF, 0);
  time.advance(1);
  log_set_level(LOG_LEVEL_INFO);
  const std::string name = directory.names().at(0);
  ASSERT_THAT(name, StartsWith("link-"));
  std::filesystem::rename(directory.file(name), target);
  std::filesystem::create_symlink(target, directory.file(name));
  const std::size_t before = fileCount();
  writeLines(50);
  time.advance(1);
  log_set_max_size_kb(1);
  EXPECT_EQ(fileCount(), before);
}

TEST_F(LogRotation, FileThatIsGoneIsReportedAndWrittenOn) {
  writeLines(50);
  std::filesystem::remove(directory.file(newest()));
  time.advance(1);
  EXPECT_EQ(test::captured(stderr, [] { log_set_max_size_kb(1); }),
            "failure getting file stats\n: No such file or directory\n");
  EXPECT_EQ(test::captured(stderr, [] { writeLines(50); }),
            "failure getting file stats\n: No such file or directory\n");
  EXPECT_EQ(test::captured(stdout, [] { writeLines(1); }), "");
  EXPECT_EQ(fileCount(), 0U);
}

TEST_F(LogRotation, StandardOutputIsNeverReplaced) {
  const std::string output = test::captured(stdout, [this] {
    log_init(nullptr, LOG_LEVEL_INFO, 0);
    log_set_max_size_kb(1);
    log_set_rotation_hours(1);
    time.advance(7200);
    writeLines(200);
    log_check_size();
    log_check_time();
  });
  EXPECT_EQ(output.find("LOG END"), std::string::npos);
  EXPECT_EQ(output.rfind("LOG START"), 0U);
}

TEST_F(LogRotation, FileIsReplacedWhenItsHoursAreOver) {
  log_set_rotation_hours(2);
  time.advance(7199);
  writeLines(1);
  EXPECT_EQ(fileCount(), 1U);
  time.advance(1);
  writeLines(1);
  ASSERT_EQ(fileCount(), 2U);
  EXPECT_THAT(read(0), HasSubstr("x\nLOG END "));
  EXPECT_THAT(read(1), MatchesRegex("LOG START [^\n]*\n"));
}

TEST_F(LogRotation, HoursBeginAnewWithEachFile) {
  log_set_rotation_hours(1);
  for (std::size_t files = 2; files < 5; ++files) {
    time.advance(3599);
    writeLines(1);
    EXPECT_EQ(fileCount(), files - 1);
    time.advance(1);
    writeLines(1);
    EXPECT_EQ(fileCount(), files);
  }
}

TEST_F(LogRotation, HoursThatAreOverAreAppliedAtOnce) {
  time.advance(7200);
  log_set_rotation_hours(3);
  EXPECT_EQ(fileCount(), 1U);
  log_set_rotation_hours(2);
  EXPECT_EQ(fileCount(), 2U);
}

TEST_F(LogRotation, ZeroAndNegativeHoursAreNever) {
  for (const int hours : {0, -1, -2147483647}) {
    log_set_rotation_hours(hours);
    time.advance(1000000);
    log_check_time();
    writeLines(1);
    EXPECT_EQ(fileCount(), 1U) << hours;
  }
}

TEST_F(LogRotation, ManyHoursAreNotOver) {
  log_set_rotation_hours(2147483647);
  time.advance(1000000);
  writeLines(1);
  EXPECT_EQ(fileCount(), 1U);
}

TEST_F(LogRotation, ClosedLogIsOpenedWhenItsHoursAreOver) {
  log_close();
  time.advance(3600);
  log_set_rotation_hours(2);
  EXPECT_EQ(fileCount(), 1U);
  log_set_rotation_hours(1);
  ASSERT_EQ(fileCount(), 2U);
  EXPECT_THAT(read(1), MatchesRegex("LOG START [^\n]*\n"));
}

TEST_F(LogRotation, ClosedLogHasNoSize) {
  log_close();
  EXPECT_THAT(test::captured(stderr, [] { log_set_max_size_kb(1); }), StartsWith("failure getting file stats\n: "));
  EXPECT_EQ(fileCount(), 1U);
}

TEST_F(LogRotation, FileThatCannotBeReplacedLeavesStandardOutput) {
  time.advance(3600);
  std::filesystem::remove_all(directory.path());
  std::string errors;
  const std::string output = test::captured(stdout, [&] {
    errors = test::captured(stderr, [] { log_set_rotation_hours(1); });
    writeLines(1, 3);
  });
  EXPECT_THAT(errors, HasSubstr(" Cannot open log file, using stdout instead : No such file or directory\n"));
  EXPECT_THAT(output, MatchesRegex("LOG START [^\n]*\n\\[a:1\\] xxx\n"));
}

}  // namespace
