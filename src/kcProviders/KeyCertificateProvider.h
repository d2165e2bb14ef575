#pragma once

#include <string>

namespace velo::ssoService {

/// Gives the device's RSA private key and X.509 certificate, and what follows from the certificate. No lock: callers
/// see to it that one call runs at a time.
///
/// Every getter returns the cached text unless it is empty or a reload is asked for. A text that comes out empty is
/// never taken as cached. Failures are thrown as KCException.
class KeyCertificateProvider {
 public:
  KeyCertificateProvider() = default;
  KeyCertificateProvider(const KeyCertificateProvider&) = delete;
  KeyCertificateProvider& operator=(const KeyCertificateProvider&) = delete;
  virtual ~KeyCertificateProvider();

  /// PEM text of the private key.
  virtual std::string getPrivateKey(bool reload) = 0;

  /// PEM text of the certificate. Fetching it drops the cached public key, but not the certificate id.
  virtual std::string getCertificate(bool reload) = 0;

  /// Whether getCloudUrl may be called.
  virtual bool isCloudUrlSupported() = 0;

  /// PEM text (SubjectPublicKeyInfo) of the certificate's public key. Throws "Cannot retrieve public key. " with the
  /// failed library call, and what getCertificate throws.
  virtual std::string getPublicKey(bool reload);

  /// The device's identity: the certificate's one-line subject (X509_NAME_oneline) behind its first "=". Throws "Cannot
  /// retrieve certificate id. Not found", and what getCertificate throws.
  virtual std::string getCertificateId(bool reload);

  /// Throws always: no provider has a cloud URL.
  virtual std::string getCloudUrl(bool reload);

 protected:
  std::string publicKey;
  std::string certificateId;
};

}  // namespace velo::ssoService
