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
    if (!hasString(sso, "log_level")) {
      startDefaultLog();
      LOG_ERROR("Configuration file %s is missing sso.log_level", configPath.c_str());
      return false;
    }
    startConfiguredLog(sso, configPath);
    return true;
  } catch (const std::exception& reason) {
    startDefaultLog();
    LOG_ERROR("Error processing configuration file %s, error %s ", configPath.c_str(), reason.what());
    return false;
  }
}

}  // namespace velo::ssoService
