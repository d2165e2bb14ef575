// The backup copy of the discovery reply, and the order in which cloud and backup are tried.

#include "Discovery.h"
#include "SsoException.h"
#include "logging/logging.h"
#include "util/FileText.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "Discovery";

}  // namespace

void Discovery::retrieveConfiguration() {
  try {
    processDiscovery(false);
    return;
  } catch (const std::exception& reason) {
    if (!cacheEnabled) {
      // Kept: the log line has a full stop that the exception's text lacks.
      LOG_ERROR("Couldn't retrieve configuration from the cloud: %s. Cloud config caching not enabled", reason.what());
      throw SsoException(std::string("Couldn't retrieve configuration from the cloud: ") + reason.what() +
                         " Cloud config caching not enabled");
    }
    LOG_ERROR("Couldn't retrieve configuration from the cloud: %s. Trying backup file", reason.what());
  }
  try {
    processDiscovery(true);
  } catch (const std::exception& reason) {
    LOG_ERROR("Couldn't retrieve configuration from the backup file: %s", reason.what());
    throw SsoException("Couldn't retrieve cloud configure from the cloud and the backup file");
  }
}

std::string Discovery::cacheFileName() const {
  return cacheFolder + deviceId + ".cfg";
}

/// Replaces the backup file by the reply. The result is for the curious: a failure costs the backup, not the attempt.
bool Discovery::storeCache() {
  const std::string fileName = cacheFileName();
  try {
    writeWholeFile(fileName, response);
    // Kept: whether the file could be written is not looked at, and the line says so all the same.
    LOG_INFO("Cloud config data was successfully stored in %s", fileName.c_str());
    return true;
  } catch (const std::exception& reason) {
    LOG_ERROR("Storing cloud discovery data to %s failed. Error: %s", fileName.c_str(), reason.what());
  } catch (...) {
    LOG_ERROR("Storing cloud discovery data to %s failed.", fileName.c_str());
  }
  return false;
}

void Discovery::loadCache() {
  const std::string fileName = cacheFileName();
  if (!readWholeFile(fileName, response)) {
    throw SsoException("Couldn't open cloud discover backup config file " + fileName);
  }
  if (response.empty()) {
    throw SsoException(" is empty");  // Kept: the file's name is not in the text.
  }
  LOG_INFO("Cloud config data successfully retrieved from %s", fileName.c_str());
}

}  // namespace velo::ssoService
