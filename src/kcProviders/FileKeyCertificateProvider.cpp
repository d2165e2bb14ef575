#include "kcProviders/FileKeyCertificateProvider.h"

#include "KCException.h"
#include "util/FileText.h"
#include "util/Secrets.h"

namespace velo::ssoService {

FileKeyCertificateProvider::FileKeyCertificateProvider(const std::string& keyFileName,
                                                       const std::string& certificateFileName)
    : keyPath(keyFileName), certificatePath(certificateFileName) {
}

FileKeyCertificateProvider::~FileKeyCertificateProvider() {
  wipe(privateKey);
  wipe(certificate);  // it may hold the key as well: one text for both is common
}

std::string FileKeyCertificateProvider::getPrivateKey(bool reload) {
  if (reload || privateKey.empty()) {
    readFile(keyPath, privateKey);
  }
  return privateKey;
}

std::string FileKeyCertificateProvider::getCertificate(bool reload) {
  if (reload || certificate.empty()) {
    wipe(publicKey);
    readFile(certificatePath, certificate);
  }
  return certificate;
}

void FileKeyCertificateProvider::readFile(const std::string& path, std::string& out) {
  wipe(out);
  if (!readWholeFile(path, out)) {
    throw KCException("Couldn't open key/certificate file " + path);
  }
  if (out.empty()) {
    throw KCException(" is empty");  // Kept: the file's name is not in the text.
  }
}

}  // namespace velo::ssoService
