// The configuration file: what the manager takes from it and how it says what is wrong with it.

#include <chrono>
#include <cstdlib>
#include <exception>
#include <utility>

#include "DiscoverySSOManager.h"
#include "apiProviders/SsoApiSocketProvider.h"
#include "kcProviders/FileKeyCertificateProvider.h"
#include "kcProviders/FileTemplateKCProvider.h"
#include "kcProviders/OrvexKCProvider.h"
#include "logging/logging.h"
#include "util/FileText.h"
#include "util/JsonMembers.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "DiscoverySSOManager";
constexpr int BASE_10 = 10;

/// The leading digits of a number's text. Throws std::out_of_range.
int readInt(const json::jobject& section, const std::string& key) {
  return std::stoi(section[key].as_string(), nullptr, BASE_10);
}

std::unique_ptr<KeyCertificateProvider> makeFileProvider(const json::jobject& section) {
  if (!hasString(section, "key_path") || !hasString(section, "certificate_path")) {
    LOG_ERROR(
        "Configuration file is missing sso.certificate_provider.key_path or sso.certificate_provider.certificate_path");
    return nullptr;
  }
  return std::make_unique<FileKeyCertificateProvider>(section["key_path"].as_string(),
                                                      section["certificate_path"].as_string());
}

std::unique_ptr<KeyCertificateProvider> makeFileTemplateProvider(const json::jobject& section,
                                                                 const std::string& environment) {
  if (!hasString(section, "prod_key_path") || !hasString(section, "prod_certificate_path") ||
      !hasString(section, "key_template") || !hasString(section, "certificate_template")) {
    LOG_ERROR(
        "Configuration file: sso.certificate_provider.prod_key_path, sso.certificate_provider.prod_certificate_path, "
        "sso.certificate_provider.key_template, sso.certificate_provider.certificate_template required for "
        "file-template");
    return nullptr;
  }
  const std::string key = section["key_template"].as_string();
  const std::string certificate = section["certificate_template"].as_string();
  if (!isValidTemplate(key) || !isValidTemplate(certificate)) {
    // Kept: "occurence", and the "%s" stands in the line as it is.
    LOG_ERROR("%s",
              "Configuration file: exactly 1 occurence of %s in each sso.certificate_provider.key_template and "
              "sso.certificate_provider.certificate_template required for file-template");
    return nullptr;
  }
  // Kept: the templates stand in the places of the production names too, whose configured values are not used.
  return std::make_unique<FileTemplateKCProvider>(key, certificate, key, certificate, environment);
}

std::unique_ptr<KeyCertificateProvider> makeOrvexProvider(const json::jobject& section,
                                                          std::chrono::seconds replyLimit) {
  if (!hasNumber(section, "port")) {
    LOG_ERROR("Configuration file: sso.certificate_provider.port required for Orvex");
    return nullptr;
  }
  return std::make_unique<OrvexKCProvider>(readInt(section, "port"), replyLimit);
}

/// How long a client may take; zero, no limit, without the key. A value that cannot be used counts as missing, as
/// everywhere in the file, but not in silence.
std::chrono::milliseconds readClientTimeout(const json::jobject& entry) {
  constexpr const char* KEY = "client_timeout_seconds";
  constexpr double LONGEST = 1e6;
  if (!entry.has_key(KEY)) {
    return std::chrono::milliseconds::zero();
  }
  const double seconds = hasNumber(entry, KEY) ? std::strtod(entry[KEY].as_string().c_str(), nullptr) : 0;
  if (!(seconds >= 0.001 && seconds <= LONGEST)) {
    LOG_ERROR("Configuration file: sso.api_providers client_timeout_seconds is no number from 0.001 to 1000000");
    return std::chrono::milliseconds::zero();
  }
  return std::chrono::round<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

/// What the thread of an API provider runs.
void* apiProviderThreadMain(SsoApiProvider* apiProvider) {
  apiProvider->serve();
  return nullptr;
}

}  // namespace

bool DiscoverySSOManager::readConfiguration(const std::string& configPath) {
  try {
    std::string text;
    if (!readWholeFile(configPath, text)) {
      LOG_ERROR("Unable to open configuration file %s", configPath.c_str());
      return false;
    }
    LOG_INFO("Reading configuration from %s", configPath.c_str());
    return applyConfiguration(json::jobject::parse(text), configPath);
  } catch (const std::exception& reason) {
    LOG_ERROR("Error processing configuration file %s, error %s ", configPath.c_str(), reason.what());
    return false;
  }
}

/// Section after section. What was built before the first failure stays.
bool DiscoverySSOManager::applyConfiguration(const json::jobject& document, const std::string& configPath) {
  if (!hasObject(document, "sso")) {
    LOG_ERROR("Configuration file %s is missing sso section", configPath.c_str());
    return false;
  }
  const json::jobject sso = document["sso"].as_object();
  if (!hasObject(sso, "cloud_config")) {
    LOG_ERROR("Configuration file %s is missing sso.cloud_config section", configPath.c_str());
    return false;
  }
  if (!configureCloud(sso["cloud_config"].as_object())) {
    LOG_ERROR("Cloud configuration in %s file is incomplete ", configPath.c_str());
    return false;
  }
  if (!hasObject(sso, "certificate_provider")) {
    LOG_ERROR("Configuration file %s is missing sso.certificate_provider section", configPath.c_str());
    return false;
  }
  if (!configureCertificateProvider(sso["certificate_provider"].as_object())) {
    LOG_ERROR("Certificate Provider couldn't be configured ");
    return false;
  }
  if (!hasArray(sso, "api_providers")) {
    LOG_ERROR("Configuration file is missing sso.api_providers ARRAY section");
    return false;
  }
  if (!configureApiProviders(sso["api_providers"].as_object())) {
    LOG_ERROR("SSO API Provider couldn't be configured ");
    return false;
  }
  return true;
}

bool DiscoverySSOManager::configureCloud(const json::jobject& section) {
  LOG_INFO("Configuring cloud settings");
  if (!hasString(section, "url")) {
    LOG_ERROR("Configuration file is missing sso.cloud_config.url ");
    return false;
  }
  if (!hasBool(section, "cache_enabled")) {
    LOG_ERROR("Configuration file is missing sso.cloud_config.cahe_enabled ");  // Kept: the key is misspelt.
    return false;
  }
  cloudUrl = section["url"].as_string();
  cacheEnabled = section["cache_enabled"].as_string() == "true";
  cacheFolder.clear();
  if (!cacheEnabled) {
    LOG_INFO("Cloud URL: %s. Cache is not used.", cloudUrl.c_str());
    return true;
  }
  if (!hasString(section, "cache_folder")) {
    LOG_ERROR("Configuration file is missing sso.cloud_config.cahe_folder ");  // Kept: the key is misspelt.
    return false;
  }
  cacheFolder = section["cache_folder"].as_string();
  LOG_INFO("Cloud URL: %s. Cached cloud config stored in %s directory.", cloudUrl.c_str(), cacheFolder.c_str());
  return true;
}

bool DiscoverySSOManager::configureCertificateProvider(const json::jobject& section) {
  if (!hasString(section, "type")) {
    LOG_ERROR("Configuration file is missing sso.certificate_provider.type");
    return false;
  }
  const std::string type = section["type"].as_string();
  LOG_INFO("Certificate provider type: %s", type.c_str());
  std::unique_ptr<KeyCertificateProvider> built = makeProvider(section, std::chrono::seconds::zero());
  if (!built) {
    return false;
  }
  providerSection = section;
  const MutexGuard guard(lock);
  provider = std::move(built);
  LOG_INFO("Certificate provider type: %s successfully created", type.c_str());
  return true;
}

/// The provider that a section with a type describes, with nothing loaded yet; null, with the reason in the log, when
/// it describes none.
std::unique_ptr<KeyCertificateProvider> DiscoverySSOManager::makeProvider(const json::jobject& section,
                                                                          std::chrono::seconds replyLimit) const {
  const std::string type = section["type"].as_string();
  if (type == "file") {
    return makeFileProvider(section);
  }
  if (type == "file-template") {
    return makeFileTemplateProvider(section, cloudEnv);
  }
  if (type == "Orvex") {
    return makeOrvexProvider(section, replyLimit);
  }
  LOG_ERROR("Unsupported certificate provider type: %s", type.c_str());
  return nullptr;
}

bool DiscoverySSOManager::configureApiProviders(const json::jobject& entries) {
  LOG_INFO("Configuring SSO API Providers");
  apiThreads.reset();
  if (!entries.is_array()) {
    LOG_ERROR("Configuration file is missing sso.api_providers array");
    return false;
  }
  apiThreads = std::make_unique<std::thread[]>(entries.size());
  LOG_INFO("Number of SSO API Providers: %d", static_cast<int>(entries.size()));
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (!startApiProvider(entries.at(i).as_object(), i)) {
      return false;
    }
  }
  return true;
}

bool DiscoverySSOManager::startApiProvider(const json::jobject& entry, std::size_t index) {
  if (!hasString(entry, "type")) {
    LOG_ERROR("Configuration file is missing type for an api_provider");
    return false;
  }
  const std::string type = entry["type"].as_string();
  LOG_INFO("SSO Provider type: %s", type.c_str());
  if (type != "socket") {
    LOG_ERROR("Unsupported certificate provider type: ");  // Kept: it is an API provider, and its type is not told.
    return false;
  }
  if (!hasNumber(entry, "port")) {
    LOG_ERROR("Configuration file is missing port for socket api provider");
    return false;
  }
  LOG_INFO("Starting SSO API Provider: %s", type.c_str());
  const int port = readInt(entry, "port");
  auto apiProvider = std::make_unique<SsoApiSocketProvider>(this, port, readClientTimeout(entry));
  std::thread thread([owned = std::move(apiProvider)] { apiProviderThreadMain(owned.get()); });
  apiThreads[index] = std::move(thread);
  apiThreads[index].detach();  // it runs until the process ends, whatever becomes of the manager
  LOG_INFO("SSO API provider type: %s successfully created", type.c_str());
  return true;
}

}  // namespace velo::ssoService
