#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "Discovery.h"
#include "SsoClient.h"
#include "json/json.h"
#include "kcProviders/KeyCertificateProvider.h"
#include "util/HttpExchange.h"
#include "util/Mutex.h"

namespace velo::ssoService {

enum ManagerState : std::uint32_t {
  CONFIG_FAILED = 0,    ///< the configuration was rejected; run ends the process
  CONFIGURED = 1,       ///< nothing has been tried yet
  INITIALIZING = 2,     ///< configure is running
  INIT_FAILED = 3,      ///< the last initialisation failed and will be tried again
  RESET_REQUESTED = 4,  ///< the clients are dropped and a new initialisation is due
  READY = 5             ///< requests are served
};

/// Ties the service together: owns the key and certificate provider, the discovery client and the token client, moves
/// through the states above and answers the local API's requests, one at a time.
///
/// The request operations may be called from any thread. The constructor, run, initialize and shutDown belong to the
/// main thread. The API threads are never joined, so a manager that has started some must outlive them: main keeps it
/// in memory that is never destroyed and calls shutDown.
class DiscoverySSOManager {
 public:
  /// Applies the configuration file, which starts the API threads, and initialises libcurl. A rejected configuration
  /// shows in the state.
  DiscoverySSOManager(const std::string& configPath, const std::string& cloudEnvironment);
  ~DiscoverySSOManager();
  DiscoverySSOManager(const DiscoverySSOManager&) = delete;
  DiscoverySSOManager& operator=(const DiscoverySSOManager&) = delete;

  /// An access token for the scope. While the manager is not ready it throws SsoException "Cloud discovery failed. "
  /// with the reason; a failure behind it is thrown as a plain std::exception.
  std::string getToken(const std::string& scope);

  /// The decrypted discovery document. Exceptions as above.
  std::string getDiscoveryData();

  /// The provider's certificate id. Exceptions as above, with "Cloud discovery failed. System is not initialized".
  std::string getCertificateId();

  /// Drops the clients of a ready manager, so that the run loop starts over; false when it was not ready.
  bool reset();

  /// Drives the states until a stop signal has been handled. Ends the process with status 1 when there is no provider
  /// or the configuration was rejected.
  void run();

  /// One attempt to get ready; a failure is left in the state and the last error.
  void initialize();

  /// Reads the key, the certificate and its id again and, unless that fails, drops the clients, so that the run loop
  /// starts over with the new ones. A failure is logged and changes nothing.
  void reload();

  /// To be called once before the process ends: releases the provider, the clients and libcurl, unless a request is
  /// still using them; then they are left to the end of the process. Requests that come later wait for that too.
  void shutDown();

 private:
  // States and operations: DiscoverySSOManager.cpp
  void configure() EXCLUDES(lock);
  bool useProviderCloudUrl(KeyCertificateProvider& source);
  KeyCertificateProvider* currentProvider() const UNCHECKED_LOCKING;
  void announceRetry() EXCLUDES(lock);
  void release() REQUIRES(lock);
  template <typename Operation>
  std::string serveRequest(const char* refusal, Operation operation) EXCLUDES(lock);

  // A new key and certificate: ManagerReload.cpp
  bool reloadIfRequested() EXCLUDES(lock);
  std::unique_ptr<KeyCertificateProvider> loadAgain() const;
  bool lockUnlessStopped() SSO_THREAD_SAFETY(try_acquire_capability(true, lock));

  // Configuration file: ManagerConfiguration.cpp
  bool readConfiguration(const std::string& configPath);
  bool applyConfiguration(const json::jobject& document, const std::string& configPath);
  bool configureCloud(const json::jobject& section);
  bool configureCertificateProvider(const json::jobject& section) EXCLUDES(lock);
  std::unique_ptr<KeyCertificateProvider> makeProvider(const json::jobject& section,
                                                       std::chrono::seconds replyLimit) const;
  bool configureApiProviders(const json::jobject& entries);
  bool startApiProvider(const json::jobject& entry, std::size_t index);

  // The main thread's alone once the API threads run.
  std::string cloudEnv;
  std::string cloudUrl;
  bool cacheEnabled = false;
  std::string cacheFolder;
  json::jobject providerSection;  // what the provider was made of
  std::unique_ptr<std::thread[]> apiThreads;
  std::optional<HttpLibrary> httpLibrary;

  // Held for the whole of a request, and for every change of what it guards.
  Mutex lock;
  std::unique_ptr<KeyCertificateProvider> provider GUARDED_BY(lock);
  std::unique_ptr<SsoClient> ssoClient GUARDED_BY(lock);
  std::unique_ptr<Discovery> discovery GUARDED_BY(lock);
  std::string lastError GUARDED_BY(lock);          // why the last initialisation failed
  std::atomic<ManagerState> state{CONFIG_FAILED};  // requests may come before the constructor is done
};

}  // namespace velo::ssoService
