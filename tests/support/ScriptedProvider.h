#pragma once

#include <functional>
#include <string>
#include <vector>

#include "kcProviders/KeyCertificateProvider.h"
#include "support/TestIdentity.h"

namespace test {

/// A provider whose texts and failures are set by the test and whose calls are recorded. Without a source for them the
/// public key and the certificate id come from the certificate, as in every provider. Caches nothing itself.
class ScriptedProvider : public velo::ssoService::KeyCertificateProvider {
 public:
  using Source = std::function<std::string()>;

  explicit ScriptedProvider(const TestIdentity& identity = deviceIdentity());

  std::string getPrivateKey(bool reload) override;
  std::string getCertificate(bool reload) override;
  bool isCloudUrlSupported() override;
  std::string getPublicKey(bool reload) override;
  std::string getCertificateId(bool reload) override;

  /// A source that throws KCException with this text.
  static Source fails(const std::string& text);

  Source privateKeySource;
  Source certificateSource;
  Source publicKeySource;
  Source certificateIdSource;
  bool cloudUrlSupported = false;

  /// What was asked for in order, as "getPrivateKey(false)". isCloudUrlSupported is not recorded.
  std::vector<std::string> calls;

 private:
  void record(const char* operation, bool reload);
};

}  // namespace test
