#pragma once

#include <cstddef>
#include <string>

#include "Base64.h"  // IWYU pragma: export

namespace velo::ssoService {

class KeyCertificateProvider;

/// Asks the cloud for the device's configuration, decrypts it with the device's key and finds the identity provider in
/// it. Keeps the last good reply, still encrypted, in a backup file if it is to. No lock: one call at a time, and each
/// request blocks its caller for up to 30 seconds.
class Discovery {
 public:
  /// RSA ciphertext blocks of a 2048-bit key.
  static constexpr std::size_t DISCOVERY_RSA_BLOCK_SIZE = 256;

  /// The device id is the provider's certificate id, taken once. The provider stays its owner's and has to outlive this
  /// object. Throws SsoException for an empty URL, KCException for a missing provider, and what getCertificateId
  /// throws.
  Discovery(const std::string& endpointUrl, bool useCache, const std::string& folder, KeyCertificateProvider* provider);

  Discovery(const Discovery&) = delete;
  Discovery& operator=(const Discovery&) = delete;

  /// The decrypted configuration; retrieved first if it is not there yet, with the exceptions of that.
  std::string getDiscoveryData();

  /// The identity provider's OpenID configuration URL; retrieved first if it is not there yet.
  std::string getSsoWellKnownUrl();

  /// Whether both results are there.
  bool hasConfiguration() const;

  /// Retrieves the configuration from the cloud or else, if it is kept, from the backup file. Throws SsoException when
  /// neither gives one.
  void retrieveConfiguration();

 private:
  void processDiscovery(bool fromBackup);
  void requestDiscovery();
  std::string extractDataTag();
  void decryptData(const std::string& data);
  bool AsymmetricPrivateKeyDecryption(const std::string& privateKeyPem, const unsigned char* block, int length,
                                      std::string* output);
  void findWellKnownUrl();
  std::string cacheFileName() const;
  bool storeCache();
  void loadCache();

  KeyCertificateProvider* keyCertificateProvider;
  std::string url;
  bool cacheEnabled;
  std::string cacheFolder;
  std::string deviceId;
  std::string ssoWellKnownUrl;
  std::string discoveryData;
  std::string response;
};

}  // namespace velo::ssoService
