#include "DiscoverySSOManager.h"

#include <chrono>
#include <cstdlib>

#include "KCException.h"
#include "SsoException.h"
#include "logging/logging.h"
#include "util/StopSignals.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "DiscoverySSOManager";
constexpr std::chrono::seconds IDLE_PAUSE{1};
constexpr std::chrono::seconds RETRY_PAUSE{30};
constexpr const char* NOT_READY = "Cloud discovery failed. ";

[[noreturn]] void terminateProcess(const char* reason) {
  LOG_ERROR("%s", reason);
  std::exit(EXIT_FAILURE);
}

}  // namespace

DiscoverySSOManager::DiscoverySSOManager(const std::string& configPath, const std::string& cloudEnvironment)
    : cloudEnv(cloudEnvironment) {
  state = readConfiguration(configPath) ? CONFIGURED : CONFIG_FAILED;
  httpLibrary.emplace();
}

DiscoverySSOManager::~DiscoverySSOManager() {
  release();
}

void DiscoverySSOManager::shutDown() {
  if (lock.try_lock()) {  // and never given back: late requests wait for the end of the process
    release();
  }
}

void DiscoverySSOManager::release() {
  provider.reset();
  ssoClient.reset();
  discovery.reset();
  httpLibrary.reset();
}

template <typename Operation>
std::string DiscoverySSOManager::serveRequest(const char* refusal, Operation operation) {
  const std::lock_guard<std::mutex> guard(lock);
  if (state != READY) {
    throw SsoException(refusal + lastError);
  }
  try {
    return operation();
  } catch (const std::exception& reason) {
    throw std::exception(reason);  // Kept: only the base is copied, so the caller gets the generic text.
  }
}

std::string DiscoverySSOManager::getToken(const std::string& scope) {
  return serveRequest(NOT_READY, [&] { return ssoClient->getAccessToken(scope); });
}

std::string DiscoverySSOManager::getDiscoveryData() {
  return serveRequest(NOT_READY, [&] { return discovery->getDiscoveryData(); });
}

std::string DiscoverySSOManager::getCertificateId() {
  // Kept: nothing stands between this text and the reason.
  return serveRequest("Cloud discovery failed. System is not initialized",
                      [&] { return provider->getCertificateId(false); });
}

bool DiscoverySSOManager::reset() {
  const std::lock_guard<std::mutex> guard(lock);
  if (state != READY) {
    return false;
  }
  state = RESET_REQUESTED;
  LOG_INFO("Reseting SSO Manager");  // Kept: as it is spelt.
  discovery.reset();
  ssoClient.reset();
  return true;
}

void DiscoverySSOManager::run() {
  if (!provider) {
    terminateProcess("Key Certificate Provider does not exist. Terminating");
  }
  for (;;) {
    deliverStopSignals();
    if (stopRequested != 0) {
      return;
    }
    switch (state) {
      case CONFIG_FAILED:
        terminateProcess("Couldn't create SSO Manager. Config failure. Terminating");
      case CONFIGURED:
      case RESET_REQUESTED:
        initialize();
        break;
      case INITIALIZING:
      case READY:
        waitForStopSignal(IDLE_PAUSE);
        break;
      case INIT_FAILED:
        LOG_ERROR("Couldn't initialize the SSO manager: %s. Will try again in 30 seconds", lastError.c_str());
        waitForStopSignal(RETRY_PAUSE);
        initialize();  // Kept: once more, even if a stop signal ended the wait.
        break;
    }
  }
}

void DiscoverySSOManager::initialize() {
  if (!provider) {
    return;
  }
  {
    const std::lock_guard<std::mutex> guard(lock);
    if (state == READY) {
      return;
    }
    state = INITIALIZING;  // requests are refused from here on, so the clients can be rebuilt without the lock
  }
  try {
    configure();
    enter(ssoClient && discovery && discovery->hasConfiguration() ? READY : INIT_FAILED, "");
  } catch (const std::exception& reason) {
    enter(INIT_FAILED, reason.what());
  }
}

void DiscoverySSOManager::enter(ManagerState next, const std::string& reason) {
  const std::lock_guard<std::mutex> guard(lock);
  state = next;
  lastError = reason;
}

void DiscoverySSOManager::configure() {
  LOG_INFO("Configuring SSO Manager");
  if (!provider) {
    LOG_ERROR("Missing key certificate provider");
    throw KCException("Cannot configure discovery data. Missing key certificate provider.");
  }
  discovery.reset();
  ssoClient.reset();
  if (provider->isCloudUrlSupported()) {
    useProviderCloudUrl();
  }
  discovery = std::make_unique<Discovery>(cloudUrl, cacheEnabled, cacheFolder, provider.get());
  discovery->retrieveConfiguration();
  LOG_INFO("Cloud config successfully retrieved. Creating SsoClient");
  ssoClient = std::make_unique<SsoClient>(discovery->getSsoWellKnownUrl(), provider.get());
}

bool DiscoverySSOManager::useProviderCloudUrl() {
  try {
    cloudUrl = provider->getCloudUrl(false);
    LOG_INFO("Cloud config URL %s retrieved from the certificate provider", cloudUrl.c_str());
    return true;
  } catch (const std::exception& reason) {
    LOG_INFO("Cloud config URL couldn't be retrieved from the certificate provider. Error: %s. Using %s", reason.what(),
             cloudUrl.c_str());
    return false;
  }
}

}  // namespace velo::ssoService
