#include "DiscoverySSOManager.h"

#include <chrono>
#include <cstdlib>
#include <new>
#include <utility>

#include "KCException.h"
#include "SsoException.h"
#include "logging/logging.h"
#include "util/Signals.h"

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

/// Never throws: a text that there is no memory for gives way to a short one, so that the state is set all the same.
std::string textOf(const std::exception& failure) noexcept {
  try {
    return failure.what();
  } catch (const std::bad_alloc&) {
    return "out of memory";
  }
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

void DiscoverySSOManager::shutDown() UNCHECKED_LOCKING {
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
  const MutexGuard guard(lock);
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
  return serveRequest(NOT_READY, [&]() REQUIRES(lock) { return ssoClient->getAccessToken(scope); });
}

std::string DiscoverySSOManager::getDiscoveryData() {
  return serveRequest(NOT_READY, [&]() REQUIRES(lock) { return discovery->getDiscoveryData(); });
}

std::string DiscoverySSOManager::getCertificateId() {
  // Kept: nothing stands between this text and the reason.
  return serveRequest("Cloud discovery failed. System is not initialized",
                      [&]() REQUIRES(lock) { return provider->getCertificateId(false); });
}

bool DiscoverySSOManager::reset() {
  const MutexGuard guard(lock);
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
  if (currentProvider() == nullptr) {
    terminateProcess("Key Certificate Provider does not exist. Terminating");
  }
  for (;;) {
    deliverSignals();
    if (stopRequested != 0) {
      return;
    }
    if (reloadIfRequested() && isStopPending()) {
      continue;
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
        waitForSignal(IDLE_PAUSE);
        break;
      case INIT_FAILED:
        announceRetry();
        waitForSignal(RETRY_PAUSE);
        reloadIfRequested();
        initialize();  // Kept: once more, even if a stop signal ended the wait.
        break;
    }
  }
}

void DiscoverySSOManager::announceRetry() {
  const MutexGuard guard(lock);
  LOG_ERROR("Couldn't initialize the SSO manager: %s. Will try again in 30 seconds", lastError.c_str());
}

/// Only the main thread changes the provider, so it may look at it without the lock.
KeyCertificateProvider* DiscoverySSOManager::currentProvider() const {
  return provider.get();
}

void DiscoverySSOManager::initialize() {
  if (currentProvider() == nullptr) {
    return;
  }
  {
    const MutexGuard guard(lock);
    if (state == READY) {
      return;
    }
    state = INITIALIZING;  // requests are refused from here on
  }
  std::string reason;
  try {
    configure();
  } catch (const std::exception& failure) {
    reason = textOf(failure);
  }
  const MutexGuard guard(lock);
  state = ssoClient && discovery && discovery->hasConfiguration() ? READY : INIT_FAILED;
  lastError.swap(reason);
}

/// Builds both clients, or throws and leaves none.
void DiscoverySSOManager::configure() {
  LOG_INFO("Configuring SSO Manager");
  KeyCertificateProvider* const source = currentProvider();
  if (source == nullptr) {
    LOG_ERROR("Missing key certificate provider");
    throw KCException("Cannot configure discovery data. Missing key certificate provider.");
  }
  {
    const MutexGuard guard(lock);
    discovery.reset();
    ssoClient.reset();
  }
  if (source->isCloudUrlSupported()) {
    useProviderCloudUrl(*source);
  }
  auto newDiscovery = std::make_unique<Discovery>(cloudUrl, cacheEnabled, cacheFolder, source);
  newDiscovery->retrieveConfiguration();
  LOG_INFO("Cloud config successfully retrieved. Creating SsoClient");
  auto newClient = std::make_unique<SsoClient>(newDiscovery->getSsoWellKnownUrl(), source);
  const MutexGuard guard(lock);
  discovery = std::move(newDiscovery);
  ssoClient = std::move(newClient);
}

bool DiscoverySSOManager::useProviderCloudUrl(KeyCertificateProvider& source) {
  try {
    cloudUrl = source.getCloudUrl(false);
    LOG_INFO("Cloud config URL %s retrieved from the certificate provider", cloudUrl.c_str());
    return true;
  } catch (const std::exception& reason) {
    LOG_INFO("Cloud config URL couldn't be retrieved from the certificate provider. Error: %s. Using %s", reason.what(),
             cloudUrl.c_str());
    return false;
  }
}

}  // namespace velo::ssoService
