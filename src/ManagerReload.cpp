// A new key and certificate for a manager that runs: read aside first, so that a failure leaves it as it was.

#include <chrono>
#include <exception>
#include <thread>
#include <utility>

#include "DiscoverySSOManager.h"
#include "KCException.h"
#include "logging/logging.h"
#include "util/OpenSsl.h"
#include "util/Secrets.h"
#include "util/Signals.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "DiscoverySSOManager";
constexpr std::chrono::seconds KEY_SERVICE_REPLY_LIMIT{30};
constexpr std::chrono::milliseconds BETWEEN_LOCK_ATTEMPTS{10};

/// Takes the key, the certificate and its id into the provider's cache, and gives the id. Throws KCException, for a key
/// that no request could use as well.
std::string load(KeyCertificateProvider& source) {
  const ErrorQueueCleaner cleaner;
  const SecretText privateKey(source.getPrivateKey(true));
  const KeyOwner key = readPrivateKey(privateKey.get());
  if (!key || EVP_PKEY_base_id(key.get()) != EVP_PKEY_RSA ||
      EVP_PKEY_size(key.get()) != int{Discovery::DISCOVERY_RSA_BLOCK_SIZE}) {
    throw KCException("The private key is no RSA key of 2048 bits that can be read");
  }
  std::string id = source.getCertificateId(true);
  const SecretText pem(source.getCertificate(false));
  const X509Owner certificate = readCertificate(pem.get());
  const KeyOwner publicKey(X509_get_pubkey(certificate.get()));
  if (!publicKey || !isWorkingPair(key.get(), publicKey.get())) {
    throw KCException("The private key does not belong to the certificate");
  }
  return id;
}

}  // namespace

/// Whether there was a request; it may have taken a while.
bool DiscoverySSOManager::reloadIfRequested() {
  if (state == CONFIG_FAILED || stopRequested != 0 || reloadRequested.exchange(0) == 0) {
    return false;
  }
  reload();
  return true;
}

void DiscoverySSOManager::reload() {
  std::unique_ptr<KeyCertificateProvider> replacement = loadAgain();
  if (!replacement) {
    return;
  }
  // Requests that wait for the lock are refused from here on, so that the one that holds it is the last.
  ManagerState ready = READY;
  state.compare_exchange_strong(ready, RESET_REQUESTED);
  if (!lockUnlessStopped()) {
    return;
  }
  state = RESET_REQUESTED;
  discovery.reset();
  ssoClient.reset();
  provider.swap(replacement);
  lock.unlock();
}

/// A provider with the key and the certificate as they are now; null, with the reason in the log, when they cannot be
/// read.
std::unique_ptr<KeyCertificateProvider> DiscoverySSOManager::loadAgain() const {
  LOG_INFO("Reading the key and the certificate again");
  try {
    std::unique_ptr<KeyCertificateProvider> loaded = makeProvider(providerSection, KEY_SERVICE_REPLY_LIMIT);
    const std::string id = load(*loaded);
    LOG_INFO("The key and the certificate of %s are read. Starting over with them", id.c_str());
    return loaded;
  } catch (const std::exception& reason) {
    LOG_ERROR("Couldn't read the key and the certificate again: %s. The old ones stay in use", reason.what());
    return nullptr;
  }
}

/// Waits for the request that holds the lock, but not when the process is to stop.
bool DiscoverySSOManager::lockUnlessStopped() {
  while (!lock.try_lock()) {
    if (isStopPending()) {
      return false;
    }
    std::this_thread::sleep_for(BETWEEN_LOCK_ATTEMPTS);
  }
  return true;
}

}  // namespace velo::ssoService
