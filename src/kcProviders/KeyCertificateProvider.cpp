#include "kcProviders/KeyCertificateProvider.h"

#include <openssl/pem.h>

#include <memory>

#include "KCException.h"
#include "logging/logging.h"
#include "util/OpenSsl.h"
#include "util/Secrets.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "kcProviders/KeyCertificateProvider";

[[noreturn]] void failPublicKey(const std::string& failedCall) {
  LOG_ERROR("%s", failedCall.c_str());
  throw KCException("Cannot retrieve public key. " + failedCall);
}

std::string writePublicKey(EVP_PKEY* key) {
  const BioOwner bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_PUBKEY(bio.get(), key) == 0) {
    failPublicKey("PEM_write_bio_PUBKEY() FAILED");
  }
  std::string pem(BIO_ctrl_pending(bio.get()), '\0');
  BIO_read(bio.get(), pem.data(), static_cast<int>(pem.size()));
  return pem;
}

/// The subject's attributes in order, each as "/name=value"; empty when there is no certificate.
std::string subjectLine(X509* certificate) {
  if (certificate == nullptr) {
    return "";
  }
  struct TextReleaser {
    void operator()(char* text) const { OPENSSL_free(text); }
  };
  const std::unique_ptr<char, TextReleaser> line(X509_NAME_oneline(X509_get_subject_name(certificate), nullptr, 0));
  return line ? line.get() : "";
}

}  // namespace

KeyCertificateProvider::~KeyCertificateProvider() {
  wipe(publicKey);
  wipe(certificateId);
}

std::string KeyCertificateProvider::getPublicKey(bool reload) {
  if (reload || publicKey.empty()) {
    const ErrorQueueCleaner cleaner;
    wipe(publicKey);
    const SecretText pem(getCertificate(reload));
    const X509Owner certificate = readCertificate(pem.get());
    const KeyOwner key(X509_get_pubkey(certificate.get()));
    if (!key) {
      failPublicKey("X509_get_pubkey() FAILED");
    }
    publicKey = writePublicKey(key.get());
  }
  return publicKey;
}

std::string KeyCertificateProvider::getCertificateId(bool reload) {
  if (reload || certificateId.empty()) {
    const ErrorQueueCleaner cleaner;
    const SecretText pem(getCertificate(reload));
    const X509Owner certificate = readCertificate(pem.get());
    LOG_INFO("SSO Reading client_id from certificate subject.");
    const std::string subject = subjectLine(certificate.get());
    const std::size_t mark = subject.find('=');
    if (mark == std::string::npos) {
      certificateId.clear();
      throw KCException("Cannot retrieve certificate id. Not found");
    }
    // Kept: only the first mark counts and no attribute is looked up, so /C=DE/CN=abc gives DE/CN=abc.
    certificateId = subject.substr(mark + 1);
  }
  return certificateId;
}

std::string KeyCertificateProvider::getCloudUrl(bool /*reload*/) {
  throw KCException(isCloudUrlSupported() ? "Cloud URL retrieval is supported but not implemented"
                                          : "Cloud URL retrieval is not supported by the certificate provider");
}

}  // namespace velo::ssoService
