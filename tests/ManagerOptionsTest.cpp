// Settings that a configuration may leave out.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DiscoverySSOManager.h"
#include "apiProviders/framing/ApiClient.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

using velo::ssoService::DiscoverySSOManager;
using Lines = std::vector<std::string>;

const std::string UNUSABLE =
    "DiscoverySSOManager: Configuration file: sso.api_providers client_timeout_seconds is no number from 0.001 to "
    "1000000";

/// API threads are never joined, so each manager that starts one lives in a child.
void withTimeout(const std::string& value, const std::function<void(int port)>& action) {
  EXPECT_EQ(runInChild([&] {
              const TemporaryDirectory directory;
              const int port = freePort();
              directory.write("configuration.json",
                              R"({"sso":{"cloud_config":{"url":"u","cache_enabled":false},"certificate_provider":)"
                              R"({"type":"file","key_path":"k","certificate_path":"c"},"api_providers":[{"type":)"
                              R"("socket","port":)" +
                                  std::to_string(port) + value + "}]}}");
              static DiscoverySSOManager& manager = *new DiscoverySSOManager(directory.file("configuration.json"), "");
              static_cast<void>(manager);
              action(port);
            }),
            0)
      << value;
}

TEST(ClientTimeoutSetting, NumbersOfSecondsAreTaken) {
  for (const std::string value : {"0.25", "2.5e-1", "25E-2", "0.250"}) {
    withTimeout(R"(,"client_timeout_seconds":)" + value, [](int port) {
      const LogCapture log(LOG_LEVEL_ERROR);
      EXPECT_FALSE(ApiClient(port).receiveAll().empty());
      EXPECT_EQ(log.lines().front(),
                "apiProviders/SsoApiSocketProvider: SSO API client has not sent its request in 0.25 seconds");
    });
  }
}

TEST(ClientTimeoutSetting, OtherValuesAreToldAndCountAsMissing) {
  for (const std::string value :
       {"0", "-1", "0.0009", "1000001", "1e999", "-0.0", "\"5\"", "true", "null", "{}", "[5]"}) {
    LogCapture log(LOG_LEVEL_ERROR);
    withTimeout(R"(,"client_timeout_seconds":)" + value, [&](int port) {
      EXPECT_EQ(log.lines(), Lines{UNUSABLE});
      EXPECT_FALSE(ask(port, "{}").empty());
    });
  }
}

TEST(ClientTimeoutSetting, AbsenceIsNotWorthALine) {
  const LogCapture log(LOG_LEVEL_ERROR);
  withTimeout("", [&](int port) {
    EXPECT_FALSE(ask(port, "{}").empty());
    EXPECT_EQ(log.lines(), Lines());
  });
}

}  // namespace
}  // namespace test
