#pragma once

#include <chrono>
#include <string>

#include "kcProviders/KeyCertificateProvider.h"
#include "util/Descriptor.h"

namespace velo::ssoService {

/// Fetches the private key and the certificate from the local key service on 127.0.0.1, one connection a fetch. A
/// connection is waited for up to 10 seconds, a reply as long as it takes (or until the process is to stop) unless
/// there is a limit. A service that closes before the reply's length is known gives an empty text, which is not a
/// failure here; every other failure is thrown as KCException and logged with the same text.
class OrvexKCProvider : public KeyCertificateProvider {
 public:
  /// The limit is for a whole reply; zero: none.
  explicit OrvexKCProvider(int servicePort, std::chrono::seconds limitOfReply = std::chrono::seconds::zero());
  ~OrvexKCProvider() override;

  std::string getPrivateKey(bool reload) override;
  std::string getCertificate(bool reload) override;
  bool isCloudUrlSupported() override { return false; }

 private:
  void requestKeyCertificate(const std::string& request, std::string* out);
  bool connectToKeyService();
  bool sendRequest(const std::string& request);
  bool readReply(std::string* out);
  [[noreturn]] void failInTime();
  [[noreturn]] void fail(const std::string& text);

  int port;
  std::chrono::seconds replyLimit;
  Descriptor socketFd;  // open inside one exchange only
  std::string privateKey;
  std::string certificate;
};

}  // namespace velo::ssoService
