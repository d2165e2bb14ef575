// The log as the configuration file sets it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "LoggingSettings.h"
#include "logging/logging.h"
#include "support/LogReset.h"
#include "support/OutputCapture.h"
#include "support/TemporaryDirectory.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using velo::ssoService::readLoggingSettings;

/// "09:12:03.045 [source:12] message" as "<time> source: message", the log's first and last line without their date.
std::string normalisedLine(const std::string& line) {
  for (const char* dated : {"LOG START", "LOG END"}) {
    if (line.rfind(dated, 0) == 0) {
      return dated;
    }
  }
  const std::size_t end = line.find("] ");
  const std::size_t colon = line.rfind(':', end);
  if (line.find_first_not_of("0123456789:.") != 12 || line.compare(12, 2, " [") != 0 || end == std::string::npos) {
    return line;
  }
  return "<time> " + line.substr(14, colon - 14) + ": " + line.substr(end + 2);
}

/// A log without what differs from run to run: dates, times and line numbers.
std::string normalised(const std::string& log) {
  std::string text;
  for (std::size_t begin = 0; begin < log.size();) {
    const std::size_t end = std::min(log.find('\n', begin), log.size());
    text += normalisedLine(log.substr(begin, end - begin));
    text += end < log.size() ? "\n" : "";
    begin = end + 1;
  }
  return text;
}

class LoggingSettings : public testing::Test {
 protected:
  /// Reads settings from a file with this text, then logs a line at each level; what that writes to standard output.
  std::string outputOf(const std::string& configuration) {
    return outputOfFile(directory.write("config", configuration));
  }

  std::string outputOfFile(const std::string& path) {
    const test::LogReset reset;
    return normalised(test::captured(stdout, [&] {
      errors = test::captured(stderr, [&] { accepted = readLoggingSettings(path); });
      for (int level = 1; level <= 5; ++level) {
        log_message("test", 1, level, "%d", level);
      }
    }));
  }

  /// What follows a problem: the reason, then everything up to level debug.
  static std::string defaultLog(const std::string& reason) {
    return "LOG START\n<time> DiscoverySSOManager: " + reason +
           "\n<time> test: 1\n<time> test: 2\n<time> test: 3\n<time> test: 4\n";
  }

  test::TemporaryDirectory directory;
  const std::string config = directory.file("config");
  bool accepted = false;
  std::string errors;
};

TEST_F(LoggingSettings, FileThatCannotBeOpened) {
  const std::string path = directory.file("missing");
  EXPECT_EQ(outputOfFile(path), defaultLog("Unable to open configuration file " + path));
  EXPECT_FALSE(accepted);
}

TEST_F(LoggingSettings, FileWithoutSsoSection) {
  for (const char* text : {"{}", "[]", "{\"SSO\":{}}", "{\"sso\":1}", "{\"sso\":\"x\"}", "{\"sso\":null}",
                           "{\"sso\":true}", "[{\"sso\":{\"log_level\":\"info\"}}]"}) {
    EXPECT_EQ(outputOf(text), defaultLog("Configuration file " + config + " is missing sso section")) << text;
    EXPECT_FALSE(accepted) << text;
  }
}

TEST_F(LoggingSettings, SectionWithoutLogLevel) {
  for (const char* text :
       {"{\"sso\":{}}", "{\"sso\":[]}", "{\"sso\":{\"log_level\":3}}", "{\"sso\":{\"log_level\":null}}",
        "{\"sso\":{\"log_level\":{}}}", "{\"sso\":{\"log_path\":\"x\"}}"}) {
    EXPECT_EQ(outputOf(text), defaultLog("Configuration file " + config + " is missing sso.log_level")) << text;
    EXPECT_FALSE(accepted) << text;
  }
}

TEST_F(LoggingSettings, FileThatIsNotJson) {
  struct Row {
    const char* text;
    const char* reason;
  };
  for (const Row row : {Row{"", "Input is not a valid object"}, Row{"garbage", "Input is not a valid object"},
                        Row{"{\"sso\":", "Input was only whitespace"}, Row{"{\"a\":1,\"a\":2}", "Key conflict"},
                        Row{"{\"\":1}", "Missing key"}, Row{"{\"sso\":{\"a\":1,\"a\":2}}", "Key conflict"},
                        Row{"{\"sso\":{\"log_level\":\"info\",}}", "Input is not a valid object"}}) {
    EXPECT_EQ(outputOf(row.text),
              defaultLog("Error processing configuration file " + config + ", error " + row.reason + " "))
        << row.text;
    EXPECT_FALSE(accepted) << row.text;
  }
}

TEST_F(LoggingSettings, DirectoryCountsAsAnEmptyFile) {
  EXPECT_EQ(outputOfFile(directory.path()), defaultLog("Error processing configuration file " + directory.path() +
                                                       ", error Input is not a valid object "));
}

TEST_F(LoggingSettings, WithoutPathTheLogGoesToStandardOutputWithAWarning) {
  const std::string warning = "<time> DiscoverySSOManager: No sso.log_file specified in configuration file " + config +
                              ". Using stdout instead\n";
  struct Row {
    const char* text;
    std::string output;
  };
  const Row rows[] = {
      {"{\"sso\":{\"log_level\":\"error\"}}", "LOG START\n<time> test: 1\n"},
      {"{\"sso\":{\"log_level\":\"warning\"}}", "LOG START\n" + warning + "<time> test: 1\n<time> test: 2\n"},
      {"{\"sso\":{\"log_level\":\"info\",\"log_path\":\"\"}}",
       "LOG START\n" + warning + "<time> test: 1\n<time> test: 2\n<time> test: 3\n"},
      {"{\"sso\":{\"log_level\":\"debug\",\"log_path\":5}}",
       "LOG START\n" + warning + "<time> test: 1\n<time> test: 2\n<time> test: 3\n<time> test: 4\n"},
      {"{\"sso\":{\"log_level\":\"verbose\",\"log_file\":\"x\"}}",
       "LOG START\n" + warning + "<time> test: 1\n<time> test: 2\n<time> test: 3\n<time> test: 4\n<time> test: 5\n"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(outputOf(row.text), row.output) << row.text;
    EXPECT_TRUE(accepted) << row.text;
  }
}

TEST_F(LoggingSettings, UnknownLevelTurnsTheLogOff) {
  for (const char* level : {"ERROR", "Info", "", "all"}) {
    EXPECT_EQ(outputOf(std::string("{\"sso\":{\"log_level\":\"") + level + "\"}}"), "") << level;
    EXPECT_TRUE(accepted) << level;
    EXPECT_EQ(errors, "") << level;
  }
}

TEST_F(LoggingSettings, UnknownLevelCreatesNoFile) {
  directory.write("config", "{\"sso\":{\"log_level\":\"ERROR\",\"log_path\":\"" + directory.path().substr(1) + "x\"}}");
  EXPECT_EQ(outputOfFile(config), "");
  EXPECT_TRUE(accepted);
  EXPECT_THAT(directory.names(), ElementsAre("config"));
}

TEST_F(LoggingSettings, PathIsThePrefixOfTheLogFile) {
  // A slash in a path is written plain in the file: the reader takes "/" but not "\/".
  EXPECT_EQ(outputOf("{\"sso\":{\"log_level\":\"info\",\"log_path\":\"" + directory.file("sso") + "\"}}"), "");
  EXPECT_TRUE(accepted);
  const auto names = directory.names();
  ASSERT_EQ(names.size(), 2U);
  EXPECT_THAT(names[1],
              MatchesRegex("sso-[0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9]-[0-9][0-9]-[0-9][0-9]-[0-9][0-9].log"));
  EXPECT_EQ(normalised(directory.read(names[1])), "LOG START\n<time> test: 1\n<time> test: 2\n<time> test: 3\nLOG END");
}

TEST_F(LoggingSettings, PathInAMissingDirectoryFallsBackToStandardOutput) {
  const std::string prefix = directory.file("missing/x");
  EXPECT_EQ(outputOf("{\"sso\":{\"log_level\":\"error\",\"log_path\":\"" + prefix + "\"}}"),
            "LOG START\n<time> test: 1\n");
  EXPECT_TRUE(accepted);
  EXPECT_THAT(errors, MatchesRegex("Attempted to create log " + prefix +
                                   "-[0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9]-[0-9][0-9]-[0-9][0-9]-[0-9][0-9].log\n"
                                   " Cannot open log file, using stdout instead : No such file or directory\n"));
}

}  // namespace
