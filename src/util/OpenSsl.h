#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace velo::ssoService {

/// Owners of OpenSSL objects: each is released by the library's own free function.
template <auto RELEASE>
struct Releaser {
  template <typename T>
  void operator()(T* owned) const {
    RELEASE(owned);
  }
};
using BioOwner = std::unique_ptr<BIO, Releaser<BIO_free>>;
using X509Owner = std::unique_ptr<X509, Releaser<X509_free>>;
using KeyOwner = std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY_free>>;
using KeyContextOwner = std::unique_ptr<EVP_PKEY_CTX, Releaser<EVP_PKEY_CTX_free>>;

/// Empties the thread's OpenSSL error queue when its scope ends: every failure is reported by its own text, and a long
/// queue would only be memory that stays.
class ErrorQueueCleaner {
 public:
  ErrorQueueCleaner() = default;
  ~ErrorQueueCleaner();
  ErrorQueueCleaner(const ErrorQueueCleaner&) = delete;
  ErrorQueueCleaner& operator=(const ErrorQueueCleaner&) = delete;
};

/// The first certificate in a PEM text (PEM_read_bio_X509_AUX); null when there is none.
X509Owner readCertificate(const std::string& pem);

/// The private key in a PEM text that ends at its first NUL (PEM_read_bio_PrivateKey); null when there is none that can
/// be read. An encrypted key counts as unreadable: nobody is there to be asked for a pass phrase.
KeyOwner readPrivateKey(const std::string& pem);

/// Decrypts one block with RSA-OAEP (SHA-1, MGF1 with SHA-1). False when it does not decrypt.
bool decryptOaep(EVP_PKEY* key, const unsigned char* block, std::size_t length, std::string& plain);

/// Whether a private key decrypts what is encrypted to the public key: its numbers may be damaged.
bool isWorkingPair(EVP_PKEY* privateKey, EVP_PKEY* publicKey);

}  // namespace velo::ssoService
