// The input is a configuration file behind a byte that chooses the cloud environment. What is logged, which API
// providers are started and what the manager then works with are compared with the rules for the file.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "DiscoverySSOManager.h"
#include "Input.h"
#include "LiteralConfiguration.h"
#include "LiteralDocument.h"
#include "LoggingSettings.h"
#include "Require.h"
#include "logging/logging.h"
#include "seams/CapturedLog.h"
#include "seams/CountedApiProvider.h"
#include "seams/MemoryFiles.h"
#include "seams/ScriptedConnection.h"

namespace {

using fuzz::ConfigurationOutcome;
using fuzz::outcomeOf;
using fuzz::require;
using fuzz::requireEqual;
using velo::ssoService::DiscoverySSOManager;

constexpr const char* PATH = "/etc/sso.json";

std::string joined(const std::vector<std::string>& lines) {
  std::string all;
  for (const std::string& line : lines) {
    all += line + "\n";
  }
  return all;
}

/// Why the manager does not get ready, which shows what it works with: there is no certificate anywhere.
std::string expectedReason(const ConfigurationOutcome& outcome) {
  if (!outcome.isAccepted) {
    return "";
  }
  if (outcome.url.empty()) {
    return "Cannot create Discovery: endpoint URL not specified";
  }
  return outcome.keyServicePort ? "Orvex Key Certificate socket couldn't be open"
                                : "Couldn't open key/certificate file " + outcome.certificateFile;
}

void checkManager(DiscoverySSOManager& manager, const ConfigurationOutcome& outcome) {
  fuzz::ConnectionScript nobody;
  nobody.connects = false;
  fuzz::scriptConnection(nobody);
  if (outcome.isAccepted) {
    fuzz::memoryFiles().clear();
    manager.initialize();
  }
  const bool asksKeyService = outcome.isAccepted && outcome.keyServicePort && !outcome.url.empty();
  require(fuzz::connectionRecord().port == (asksKeyService ? *outcome.keyServicePort & 0xffff : -1),
          "the key service is asked at its port");
  requireEqual(outcomeOf([&] { return manager.getToken(""); }),
               "threw Cloud discovery failed. " + expectedReason(outcome), "the manager works with what is configured");
}

void checkConfiguration(const std::string* text, const std::string& environment) {
  const ConfigurationOutcome outcome = fuzz::readConfigurationLiterally(PATH, text, environment);
  DiscoverySSOManager manager(PATH, environment);
  requireEqual(joined(fuzz::takeLog()), joined(outcome.lines), "the log tells what was read");
  requireEqual(joined(fuzz::takeApiProviders()), joined(outcome.providers), "the API providers are started");
  checkManager(manager, outcome);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const velo::ssoService::HttpLibrary library;  // so that each manager's own costs nothing
  static const std::array<std::string, 4> ENVIRONMENTS = {"", "prod", "stage", "%s"};
  fuzz::Input input(data, size);
  const std::uint8_t choice = input.byte();
  const std::string text = input.rest();
  const bool isReadable = choice != 0xff;
  fuzz::memoryFiles().clear();
  if (isReadable) {
    fuzz::memoryFiles()[PATH] = text;
  }
  velo::ssoService::readLoggingSettings(PATH);
  requireEqual(joined(fuzz::takeLog()), joined(fuzz::readLoggingLiterally(PATH, isReadable ? &text : nullptr)),
               "the log is started as configured");
  log_redact_secrets(false);
  checkConfiguration(isReadable ? &text : nullptr, ENVIRONMENTS[choice % ENVIRONMENTS.size()]);
  fuzz::takeLog();
  return 0;
}
