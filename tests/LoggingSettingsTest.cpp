// How the configuration file's logging keys start the log: what is shown on standard output and in files afterwards.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "LoggingSettings.h"
#include "logging/logging.h"
#include "support/TemporaryDirectory.h"
#include "util/Descriptor.h"

namespace test {
namespace {

using testing::MatchesRegex;
using testing::Value;
using velo::ssoService::Descriptor;
using Lines = std::vector<std::string>;

const char* const START = "LOG START [A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} [0-9]{4}";
const char* const POSITION = "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} \\[[^:]*:[0-9]+\\] .*";
const char* const FILE_TIME = "-[0-9]{4}(-[0-9]{2}){5}\\.log";

std::string readableLine(const std::string& line) {
  if (Value(line, MatchesRegex(START))) {
    return "LOG START";
  }
  if (!Value(line, MatchesRegex(POSITION))) {
    return line;
  }
  const std::size_t source = line.find('[') + 1;
  return line.substr(source, line.find(':', source) - source) + ": " + line.substr(line.find("] ") + 2);
}

/// The lines of a log with "LOG START" for the first one and "source: message" for those that begin with a time.
Lines readable(const std::string& log) {
  Lines lines;
  std::size_t start = 0;
  for (std::size_t end = 0; (end = log.find('\n', start)) != std::string::npos; start = end + 1) {
    lines.push_back(readableLine(log.substr(start, end - start)));
  }
  if (start < log.size()) {
    lines.push_back("unfinished: " + log.substr(start));
  }
  return lines;
}

class LoggingSettingsTest : public ::testing::Test {
 protected:
  ~LoggingSettingsTest() override {
    endLog();
    log_redact_secrets(false);
    log_init(nullptr, LOG_LEVEL_OFF, 0);
  }

  /// Ends the log of the start before, unseen.
  void endLog() {
    written(stdout, [] { log_close(); });
  }

  /// Runs an action and gives what it wrote to one of the standard streams.
  std::string written(std::FILE* stream, const std::function<void()>& action) {
    const std::string name = stream == stdout ? "output" : "errors";
    static_cast<void>(std::fflush(stream));
    const Descriptor before(::dup(::fileno(stream)));
    {
      const Descriptor file(::open(directory.file(name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
      ::dup2(file.get(), ::fileno(stream));
    }
    action();
    static_cast<void>(std::fflush(stream));
    ::dup2(before.get(), ::fileno(stream));
    return directory.read(name);
  }

  /// Reads the settings from a file with this text and logs one message of each level; gives the result and what is on
  /// standard output.
  std::pair<bool, Lines> start(const std::string& configuration) {
    directory.write("configuration.json", configuration);
    return startFrom(directory.file("configuration.json"));
  }

  std::pair<bool, Lines> startFrom(const std::string& path) {
    endLog();
    bool result = false;
    const std::string output = written(stdout, [&] {
      result = velo::ssoService::readLoggingSettings(path);
      for (const auto& [level, name] : LEVELS) {
        log_message("test", 1, level, "%s", name);
      }
    });
    return {result, readable(output)};
  }

  /// What is shown of the messages of startFrom at a level.
  static Lines shownAt(int limit) {
    Lines lines;
    for (const auto& [level, name] : LEVELS) {
      if (level <= limit) {
        lines.push_back(std::string("test: ") + name);
      }
    }
    return lines;
  }

  static constexpr std::array<std::pair<int, const char*>, 5> LEVELS{{{LOG_LEVEL_ERROR, "error"},
                                                                      {LOG_LEVEL_WARNING, "warning"},
                                                                      {LOG_LEVEL_INFO, "info"},
                                                                      {LOG_LEVEL_DEBUG, "debug"},
                                                                      {LOG_LEVEL_VERBOSE, "verbose"}}};
  TemporaryDirectory directory;
};

Lines operator+(Lines first, const Lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

TEST_F(LoggingSettingsTest, UnusableFileStartsTheLogOnStandardOutputAtLevelDebug) {
  const std::string path = directory.file("configuration.json");
  const std::string noSection = "Configuration file " + path + " is missing sso section";
  const std::string noLevel = "Configuration file " + path + " is missing sso.log_level";
  const auto failed = [&](const std::string& reason) {
    return "Error processing configuration file " + path + ", error " + reason + " ";
  };
  struct {
    const char* configuration;
    std::string message;
  } const table[] = {
      {R"({})", noSection},
      {R"([])", noSection},
      {R"({"SSO":{"log_level":"info"}})", noSection},
      {R"({"sso":"info"})", noSection},
      {R"({"sso":5})", noSection},
      {R"({"sso":null})", noSection},
      {R"({"log_level":"info"})", noSection},
      {R"({"sso":{}})", noLevel},
      {R"({"sso":[]})", noLevel},
      {R"({"sso":["log_level","info"]})", noLevel},
      {R"({"sso":{"log_level":3}})", noLevel},
      {R"({"sso":{"log_level":null}})", noLevel},
      {R"({"sso":{"log_level":["info"]}})", noLevel},
      {R"({"sso":{"LOG_LEVEL":"info"}})", noLevel},
      {R"({"sso":{"log_path":"/nowhere/log"}})", noLevel},
      {"", failed("Input is not a valid object")},
      {"log_level=info", failed("Input is not a valid object")},
      {R"({"sso":)", failed("Input was only whitespace")},
      {R"({"sso":{"log_level":"info"})", failed("Input is not a valid object")},
      {R"({"sso":{"log_level":"info","log_level":"info"}})", failed("Key conflict")},
      {R"({"sso":{},"sso":{}})", failed("Key conflict")},
      {R"({"sso":{"":1}})", failed("Missing key")},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.configuration);
    const auto [result, output] = start(row.configuration);
    EXPECT_FALSE(result);
    EXPECT_EQ(output, Lines({"LOG START", "DiscoverySSOManager: " + row.message}) + shownAt(LOG_LEVEL_DEBUG));
  }
}

TEST_F(LoggingSettingsTest, FileThatCannotBeOpenedIsTold) {
  for (const std::string& path : {directory.file("missing.json"), directory.file("%s%n.json"), std::string()}) {
    SCOPED_TRACE(path);
    const auto [result, output] = startFrom(path);
    EXPECT_FALSE(result);
    EXPECT_EQ(output, Lines({"LOG START", "DiscoverySSOManager: Unable to open configuration file " + path}) +
                          shownAt(LOG_LEVEL_DEBUG));
  }
}

TEST_F(LoggingSettingsTest, DirectoryIsAnEmptyFile) {
  const auto [result, output] = startFrom(directory.path());
  EXPECT_FALSE(result);
  EXPECT_EQ(output, Lines({"LOG START", "DiscoverySSOManager: Error processing configuration file " + directory.path() +
                                            ", error Input is not a valid object "}) +
                        shownAt(LOG_LEVEL_DEBUG));
}

TEST_F(LoggingSettingsTest, LevelIsTakenByItsName) {
  const std::string warning = "DiscoverySSOManager: No sso.log_file specified in configuration file " +
                              directory.file("configuration.json") + ". Using stdout instead";
  struct {
    const char* name;
    Lines output;
  } const table[] = {
      {"error", Lines{"LOG START"} + shownAt(LOG_LEVEL_ERROR)},
      {"warning", Lines{"LOG START", warning} + shownAt(LOG_LEVEL_WARNING)},
      {"info", Lines{"LOG START", warning} + shownAt(LOG_LEVEL_INFO)},
      {"debug", Lines{"LOG START", warning} + shownAt(LOG_LEVEL_DEBUG)},
      {"verbose", Lines{"LOG START", warning} + shownAt(LOG_LEVEL_VERBOSE)},
      {"ERROR", {}},
      {"Info", {}},
      {"info ", {}},
      {"off", {}},
      {"3", {}},
      {"", {}},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    const auto [result, output] = start(std::string(R"({"sso":{"log_level":")") + row.name + R"("}})");
    EXPECT_TRUE(result);
    EXPECT_EQ(output, row.output);
  }
}

TEST_F(LoggingSettingsTest, PathThatIsNoTextOrEmptyMeansStandardOutput) {
  for (const char* path : {R"("")", "5", "true", "null", "[]", "{}"}) {
    SCOPED_TRACE(path);
    const auto [result, output] = start(std::string(R"({"sso":{"log_level":"warning","log_path":)") + path + "}}");
    EXPECT_TRUE(result);
    EXPECT_EQ(output, Lines({"LOG START", "DiscoverySSOManager: No sso.log_file specified in configuration file " +
                                              directory.file("configuration.json") + ". Using stdout instead"}) +
                          shownAt(LOG_LEVEL_WARNING));
  }
}

TEST_F(LoggingSettingsTest, PathIsThePrefixOfTheLogFile) {
  const auto [result, output] = start(R"({"sso":{"log_level":"info","log_path":")" + directory.file("sso") + R"("}})");
  EXPECT_TRUE(result);
  EXPECT_EQ(output, Lines());
  Lines names = directory.names();
  ASSERT_EQ(names.size(), 3U);  // and the configuration and the output
  EXPECT_THAT(names[2], MatchesRegex(std::string("sso") + FILE_TIME));
  EXPECT_EQ(readable(directory.read(names[2])), Lines{"LOG START"} + shownAt(LOG_LEVEL_INFO));
}

TEST_F(LoggingSettingsTest, UnknownLevelMakesNoLogFile) {
  const auto [result, output] = start(R"({"sso":{"log_level":"ERROR","log_path":")" + directory.file("sso") + R"("}})");
  EXPECT_TRUE(result);
  EXPECT_EQ(output, Lines());
  EXPECT_EQ(directory.names(), (Lines{"configuration.json", "output"}));
}

TEST_F(LoggingSettingsTest, FileThatCannotBeMadeIsToldOnStandardErrorAndReplacedByStandardOutput) {
  const std::string prefix = directory.file("missing/sso");
  std::pair<bool, Lines> started;
  const std::string errors =
      written(stderr, [&] { started = start(R"({"sso":{"log_level":"info","log_path":")" + prefix + R"("}})"); });
  EXPECT_TRUE(started.first);
  EXPECT_EQ(started.second, Lines{"LOG START"} + shownAt(LOG_LEVEL_INFO));
  EXPECT_THAT(errors, MatchesRegex("Attempted to create log " + prefix + FILE_TIME +
                                   "\n Cannot open log file, using stdout instead : No such file or directory\n"));
}

TEST_F(LoggingSettingsTest, SecretsAreShownUnlessTheyAreToBeKeptOut) {
  const std::string secret = "secret";
  struct {
    const char* member;
    const char* shown;
  } const table[] = {
      {"", "secret"},
      {R"(,"log_redact_secrets":false)", "secret"},
      {R"(,"log_redact_secrets":true)", "[redacted]"},
      {R"(,"LOG_REDACT_SECRETS":true)", "secret"},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.member);
    EXPECT_TRUE(start(R"({"sso":{"log_level":"error")" + std::string(row.member) + "}}").first);
    EXPECT_STREQ(log_secret(secret), row.shown);
    EXPECT_FALSE(start(R"({"sso":{"log_level":5)" + std::string(row.member) + "}}").first);
    EXPECT_STREQ(log_secret(secret), row.shown) << "with the log that is started without a level";
  }
}

TEST_F(LoggingSettingsTest, RedactionThatIsNeitherTrueNorFalseIsToldAndOn) {
  const std::string path = directory.file("configuration.json");
  const std::string told = "DiscoverySSOManager: Configuration file " + path +
                           ": sso.log_redact_secrets is neither true nor false. Secrets are kept out of the log";
  const std::string noLevel = "DiscoverySSOManager: Configuration file " + path + " is missing sso.log_level";
  for (const std::string value : {R"("true")", "1", "null", "[true]", "{}"}) {
    SCOPED_TRACE(value);
    log_redact_secrets(false);
    EXPECT_EQ(start(R"({"sso":{"log_level":"error","log_redact_secrets":)" + value + "}}"),
              std::make_pair(true, Lines{"LOG START", told} + shownAt(LOG_LEVEL_ERROR)));
    EXPECT_STREQ(log_secret("secret"), "[redacted]");
    EXPECT_EQ(start(R"({"sso":{"log_redact_secrets":)" + value + "}}"),
              std::make_pair(false, Lines{"LOG START", noLevel, told} + shownAt(LOG_LEVEL_DEBUG)));
  }
}

}  // namespace
}  // namespace test
