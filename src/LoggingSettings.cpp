#include "LoggingSettings.h"

#include <exception>

#include "json/json.h"
#include "logging/logging.h"
#include "util/FileText.h"
#include "util/JsonMembers.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "DiscoverySSOManager";

void startDefaultLog() {
  log_init(nullptr, LOG_LEVEL_DEBUG, 1);
}

void startConfiguredLog(const json::jobject& sso, const std::string& configPath) {
  const int level = log_level_from_name(sso["log_level"].as_string().c_str());
  const std::string path = hasString(sso, "log_path") ? sso["log_path"].as_string() : "";
  if (!path.empty()) {
    log_init(path.c_str(), level, 1);
    return;
  }
  log_init(nullptr, level, 1);
  // Kept: the key is log_path, the text says log_file.
  LOG_WARNING("No sso.log_file specified in configuration file %s. Using stdout instead", configPath.c_str());
}

/// Before the log is started: nothing that is to be kept out of it may come first. A value that is neither true nor
/// false asks for something, so the secrets stay out, too; false is returned for it.
bool readRedaction(const json::jobject& sso) {
  constexpr const char* KEY = "log_redact_secrets";
  const bool isUsable = !sso.has_key(KEY) || sso[KEY].is_bool();
  log_redact_secrets(!isUsable || (sso.has_key(KEY) && sso[KEY].as_string() == "true"));
  return isUsable;
}

}  // namespace

bool readLoggingSettings(const std::string& configPath) {
  try {
    std::string text;
    if (!readWholeFile(configPath, text)) {
      startDefaultLog();
      LOG_ERROR("Unable to open configuration file %s", configPath.c_str());
      return false;
    }
    const json::jobject document = json::jobject::parse(text);
    if (!hasObject(document, "sso")) {
      startDefaultLog();
      LOG_ERROR("Configuration file %s is missing sso section", configPath.c_str());
      return false;
    }
    const json::jobject sso = document["sso"].as_object();
    const bool redactionIsUsable = readRedaction(sso);
    const bool levelIsThere = hasString(sso, "log_level");
    if (levelIsThere) {
      startConfiguredLog(sso, configPath);
    } else {
      startDefaultLog();
      LOG_ERROR("Configuration file %s is missing sso.log_level", configPath.c_str());
    }
    if (!redactionIsUsable) {
      LOG_ERROR(
          "Configuration file %s: sso.log_redact_secrets is neither true nor false. Secrets are kept out of the log",
          configPath.c_str());
    }
    return levelIsThere;
  } catch (const std::exception& reason) {
    startDefaultLog();
    LOG_ERROR("Error processing configuration file %s, error %s ", configPath.c_str(), reason.what());
    return false;
  }
}

}  // namespace velo::ssoService
