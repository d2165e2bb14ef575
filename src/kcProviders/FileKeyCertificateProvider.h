#pragma once

#include <string>

#include "kcProviders/KeyCertificateProvider.h"

namespace velo::ssoService {

/// Reads the private key and the certificate from two files, at first use and when a reload is asked for. A read throws
/// KCException "Couldn't open key/certificate file " with the name, or " is empty".
class FileKeyCertificateProvider : public KeyCertificateProvider {
 public:
  FileKeyCertificateProvider(const std::string& keyFileName, const std::string& certificateFileName);
  ~FileKeyCertificateProvider() override;

  std::string getPrivateKey(bool reload) override;
  std::string getCertificate(bool reload) override;
  bool isCloudUrlSupported() override { return false; }

 protected:
  std::string keyPath;
  std::string certificatePath;

 private:
  static void readFile(const std::string& path, std::string& out);

  std::string privateKey;
  std::string certificate;
};

}  // namespace velo::ssoService
