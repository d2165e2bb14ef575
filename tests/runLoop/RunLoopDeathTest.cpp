// The run loop's ways to end the process. These tests come before the others, while the process has one thread.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "DiscoverySSOManager.h"
#include "logging/logging.h"
#include "runLoop/ScriptedStops.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

const std::string NO_PROVIDER = "Key Certificate Provider does not exist. Terminating";
const std::string REJECTED = "Couldn't create SSO Manager. Config failure. Terminating";
const std::string CLOUD = R"("cloud_config":{"url":"u","cache_enabled":false})";
const std::string PROVIDER = R"(,"certificate_provider":{"type":"file","key_path":"k","certificate_path":"c"})";

class RunLoopDeathTest : public ::testing::Test {
 protected:
  /// Runs a manager; its log goes to standard error, where it can be compared.
  void run(const std::string& name, int level) const {
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    log_init(nullptr, level, 0);
    velo::ssoService::DiscoverySSOManager manager(directory.file(name), "");
    manager.run();
  }

  /// A log that ends in this message.
  static testing::Matcher<const std::string&> endsInLine(const std::string& message) {
    const std::string position = "\\[DiscoverySSOManager:[0-9]+\\] ";
    return testing::MatchesRegex("LOG START [^\n]*\n(\\[[^\n]*\n)*" + position + message + "\n");
  }

  TemporaryDirectory directory;
  StopScript script;
};

TEST_F(RunLoopDeathTest, WhatWasBuiltBeforeTheFailureDecidesAboutTheLastMessage) {
  struct {
    const char* name;
    std::string sso;
    std::string message;
  } const table[] = {
      {"empty section", "", NO_PROVIDER},
      {"incomplete cloud section", R"("cloud_config":{})" + PROVIDER + R"(,"api_providers":[])", NO_PROVIDER},
      {"no provider section", CLOUD, NO_PROVIDER},
      {"unknown provider", CLOUD + R"(,"certificate_provider":{"type":"File"})", NO_PROVIDER},
      {"provider whose port does not convert", CLOUD + R"(,"certificate_provider":{"type":"Orvex","port":99999999999})",
       NO_PROVIDER},
      {"no api_providers", CLOUD + PROVIDER, REJECTED},
      {"api_providers as an object", CLOUD + PROVIDER + R"(,"api_providers":{})", REJECTED},
      {"unknown API provider", CLOUD + PROVIDER + R"(,"api_providers":[{"type":"pipe"}])", REJECTED},
      {"API provider that is no object", CLOUD + PROVIDER + R"(,"api_providers":[5])", REJECTED},
      {"API provider whose port does not convert",
       CLOUD + PROVIDER + R"(,"api_providers":[{"type":"socket","port":99999999999}])", REJECTED},
      {"second API provider unknown",
       CLOUD + PROVIDER + R"(,"api_providers":[{"type":"socket","port":0},{"type":"pipe"}])", REJECTED},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    directory.write("configuration.json", R"({"sso":{)" + row.sso + "}}");
    EXPECT_EXIT(run("configuration.json", LOG_LEVEL_ERROR), testing::ExitedWithCode(1), endsInLine(row.message));
  }
}

TEST_F(RunLoopDeathTest, FileThatCannotBeReadLeavesNoProvider) {
  EXPECT_EXIT(run("missing.json", LOG_LEVEL_ERROR), testing::ExitedWithCode(1), endsInLine(NO_PROVIDER));
  directory.write("text.json", "not JSON");
  EXPECT_EXIT(run("text.json", LOG_LEVEL_ERROR), testing::ExitedWithCode(1), endsInLine(NO_PROVIDER));
}

TEST_F(RunLoopDeathTest, MissingProviderIsSeenBeforeAStop) {
  requestStop();
  EXPECT_EXIT(run("missing.json", LOG_LEVEL_ERROR), testing::ExitedWithCode(1), endsInLine(NO_PROVIDER));
}

TEST_F(RunLoopDeathTest, LogThatIsOffStaysEmpty) {
  directory.write("configuration.json", R"({"sso":{)" + CLOUD + PROVIDER + "}}");
  EXPECT_EXIT(run("missing.json", LOG_LEVEL_OFF), testing::ExitedWithCode(1), testing::StrEq(""));
  EXPECT_EXIT(run("configuration.json", LOG_LEVEL_OFF), testing::ExitedWithCode(1), testing::StrEq(""));
}

}  // namespace
}  // namespace test
