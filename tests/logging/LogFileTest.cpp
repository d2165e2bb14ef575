// Where the log goes: file names, opening, closing, failures.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>

#include "logging/logging.h"
#include "support/LogReset.h"
#include "support/OpenDescriptors.h"
#include "support/OutputCapture.h"
#include "support/SystemTime.h"
#include "support/TemporaryDirectory.h"

namespace {

using testing::ElementsAre;
using testing::StartsWith;

std::time_t localMoment(int year, int month, int day, int hour, int minute, int second) {
  std::tm broken{};
  broken.tm_year = year - 1900;
  broken.tm_mon = month - 1;
  broken.tm_mday = day;
  broken.tm_hour = hour;
  broken.tm_min = minute;
  broken.tm_sec = second;
  broken.tm_isdst = -1;
  return std::mktime(&broken);
}

/// The C library's own text of a date, without its line end.
std::string asctimeText(std::time_t moment) {
  std::tm broken{};
  localtime_r(&moment, &broken);
  char text[32];
  const std::string date = asctime_r(&broken, text);
  return date.substr(0, date.size() - 1);
}

class LogFiles : public testing::Test {
 protected:
  std::string read(std::size_t index) const { return directory.read(directory.names().at(index)); }

  test::TemporaryDirectory directory;
  const std::string prefix = directory.file("log");
  test::StoppedTime time{localMoment(2026, 11, 15, 9, 12, 3)};
  const std::string date = asctimeText(time.now());
  test::LogReset reset;
};

TEST_F(LogFiles, NameHoldsPrefixDateAndTime) {
  log_init(directory.file("sso").c_str(), LOG_LEVEL_INFO, 0);
  EXPECT_THAT(directory.names(), ElementsAre("sso-2026-11-15-09-12-03.log"));
}

TEST_F(LogFiles, NamePadsItsNumbers) {
  time.advance(localMoment(2031, 1, 2, 3, 4, 5) - time.now());
  log_init(directory.file("sso").c_str(), LOG_LEVEL_INFO, 0);
  EXPECT_THAT(directory.names(), ElementsAre("sso-2031-01-02-03-04-05.log"));
}

TEST_F(LogFiles, BeginsWithLogStartAndTheDate) {
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 1);
  EXPECT_EQ(read(0), "LOG START " + date + "\n");
  EXPECT_EQ(date.substr(0, 20), "Sun Nov 15 09:12:03 ");
}

TEST_F(LogFiles, DateOfASingleDigitDayIsPaddedWithABlank) {
  const std::time_t moment = localMoment(2026, 3, 5, 1, 2, 3);
  time.advance(moment - time.now());
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  EXPECT_EQ(read(0), "LOG START Thu Mar  5 01:02:03 2026\n");
  EXPECT_EQ(read(0), "LOG START " + asctimeText(moment) + "\n");
}

TEST_F(LogFiles, FileIsItsOwnersAlone) {
  const mode_t before = ::umask(0);
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 1);
  ::umask(before);
  struct stat status {};
  ASSERT_EQ(::stat(directory.file(directory.names().at(0)).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(LogFiles, CloseWritesLogEndWithoutALineEnd) {
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  EXPECT_EQ(log_close(), 0);
  EXPECT_EQ(read(0), "LOG START " + date + "\nLOG END " + date);
}

TEST_F(LogFiles, SecondCloseDoesNothing) {
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  log_close();
  EXPECT_EQ(test::captured(stdout, [] { EXPECT_EQ(log_close(), 0); }), "");
  EXPECT_EQ(read(0), "LOG START " + date + "\nLOG END " + date);
}

TEST_F(LogFiles, MessageAfterCloseGoesToStandardOutput) {
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  log_close();
  EXPECT_EQ(test::captured(stdout, [] { log_message("a", 1, LOG_LEVEL_INFO, "text"); }), "[a:1] text\n");
  EXPECT_EQ(read(0), "LOG START " + date + "\nLOG END " + date);
}

TEST_F(LogFiles, OpenStartsANewFileAndEndsTheOld) {
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  log_message("a", 1, LOG_LEVEL_INFO, "first");
  time.advance(1);
  EXPECT_EQ(log_open(), 0);
  log_message("a", 2, LOG_LEVEL_INFO, "second");
  EXPECT_THAT(directory.names(), ElementsAre("log-2026-11-15-09-12-03.log", "log-2026-11-15-09-12-04.log"));
  const std::string later = asctimeText(time.now());
  EXPECT_EQ(read(0), "LOG START " + date + "\n[a:1] first\nLOG END " + later);
  EXPECT_EQ(read(1), "LOG START " + later + "\n[a:2] second\n");
}

TEST_F(LogFiles, SecondOpeningInTheSameSecondTruncatesTheFirst) {
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  log_message("a", 1, LOG_LEVEL_INFO, "%s", std::string(5000, 'x').c_str());
  EXPECT_EQ(log_open(), 0);
  EXPECT_THAT(directory.names(), ElementsAre("log-2026-11-15-09-12-03.log"));
  EXPECT_EQ(read(0), "LOG START " + date + "\n");
  log_message("a", 2, LOG_LEVEL_INFO, "text");
  EXPECT_EQ(read(0), "LOG START " + date + "\n[a:2] text\n");
}

TEST_F(LogFiles, FileThatExistsIsTruncated) {
  directory.write("log-2026-11-15-09-12-03.log", "old text\n");
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  EXPECT_EQ(read(0), "LOG START " + date + "\n");
}

TEST_F(LogFiles, PrefixIsCopied) {
  std::string changing = prefix;
  log_init(changing.c_str(), LOG_LEVEL_INFO, 0);
  changing.assign(changing.size(), 'x');
  time.advance(1);
  EXPECT_EQ(log_open(), 0);
  EXPECT_THAT(directory.names(), ElementsAre("log-2026-11-15-09-12-03.log", "log-2026-11-15-09-12-04.log"));
}

TEST_F(LogFiles, LongPrefixIsKeptWhole) {
  const std::string name(200, 'p');
  log_init(directory.file(name).c_str(), LOG_LEVEL_INFO, 0);
  EXPECT_THAT(directory.names(), ElementsAre(name + "-2026-11-15-09-12-03.log"));
}

TEST_F(LogFiles, PercentSignsInThePrefixAreText) {
  log_init(directory.file("%s%n%d").c_str(), LOG_LEVEL_INFO, 0);
  EXPECT_THAT(directory.names(), ElementsAre("%s%n%d-2026-11-15-09-12-03.log"));
}

TEST_F(LogFiles, OpeningStandardOutputAnewWritesBothDates) {
  const std::string output = test::captured(stdout, [] {
    log_init(nullptr, LOG_LEVEL_INFO, 0);
    log_open();
  });
  EXPECT_EQ(output, "LOG START " + date + "\nLOG END " + date + "LOG START " + date + "\n");
}

TEST_F(LogFiles, FileThatCannotBeOpenedIsReportedAndReplacedByStandardOutput) {
  int result = 0;
  std::string errors;
  const std::string output = test::captured(stdout, [&] {
    errors = test::captured(stderr, [&] { result = log_init(directory.file("missing/x").c_str(), LOG_LEVEL_INFO, 0); });
    log_message("a", 1, LOG_LEVEL_INFO, "text");
  });
  EXPECT_EQ(result, 1);
  EXPECT_EQ(errors, "Attempted to create log " + directory.path() +
                        "/missing/x-2026-11-15-09-12-03.log\n"
                        " Cannot open log file, using stdout instead : No such file or directory\n");
  EXPECT_EQ(output, "LOG START " + date + "\n[a:1] text\n");
}

TEST_F(LogFiles, OpeningAfterAFailureTriesTheFileAgain) {
  const std::string missing = directory.file("missing");
  test::captured(stdout, [&] {
    test::captured(stderr, [&] { log_init((missing + "/x").c_str(), LOG_LEVEL_INFO, 0); });
    std::filesystem::create_directory(missing);
    EXPECT_EQ(log_open(), 0);
  });
  EXPECT_TRUE(std::filesystem::exists(missing + "/x-2026-11-15-09-12-03.log"));
}

TEST_F(LogFiles, FileThatCannotBeClosedIsReportedAndDropped) {
  std::filesystem::create_symlink("/dev/full", directory.file("log-2026-11-15-09-12-03.log"));
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  int result = 0;
  EXPECT_EQ(test::captured(stderr, [&] { result = log_close(); }),
            " Couldn't close log file \n: No space left on device\n");
  EXPECT_EQ(result, EOF);
  EXPECT_EQ(test::captured(stdout, [] { log_message("a", 1, LOG_LEVEL_INFO, "text"); }), "[a:1] text\n");
}

TEST_F(LogFiles, OpeningReturnsTheFailureToClose) {
  std::filesystem::create_symlink("/dev/full", directory.file("log-2026-11-15-09-12-03.log"));
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  time.advance(1);
  int result = 0;
  test::captured(stderr, [&] { result = log_open(); });
  EXPECT_EQ(result, EOF);
  EXPECT_THAT(read(1), StartsWith("LOG START "));
}

TEST_F(LogFiles, FailureToOpenHidesTheFailureToClose) {
  std::filesystem::create_symlink("/dev/full", directory.file("log-2026-11-15-09-12-03.log"));
  log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
  time.advance(1);
  std::filesystem::create_directory(directory.file("log-2026-11-15-09-12-04.log"));
  int result = 0;
  test::captured(stdout, [&] { test::captured(stderr, [&] { result = log_open(); }); });
  EXPECT_EQ(result, 1);
}

TEST_F(LogFiles, NoDescriptorIsLost) {
  const test::OpenDescriptors descriptors;
  for (int opening = 0; opening < 20; ++opening) {
    log_init(prefix.c_str(), LOG_LEVEL_INFO, 0);
    log_open();
  }
  log_close();
  EXPECT_TRUE(descriptors.areAsBefore());
}

}  // namespace
