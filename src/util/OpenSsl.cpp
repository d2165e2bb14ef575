#include "util/OpenSsl.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "util/Secrets.h"

namespace velo::ssoService {
namespace {

/// Stands in the place of OpenSSL's own callback, which would prompt on the terminal.
int refusePassPhrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*unused*/) {
  return -1;
}

}  // namespace

ErrorQueueCleaner::~ErrorQueueCleaner() {
  ERR_clear_error();
}

X509Owner readCertificate(const std::string& pem) {
  const BioOwner bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return X509Owner(bio ? PEM_read_bio_X509_AUX(bio.get(), nullptr, refusePassPhrase, nullptr) : nullptr);
}

KeyOwner readPrivateKey(const std::string& pem) {
  const StackWiper wiper;
  const BioOwner bio(BIO_new_mem_buf(pem.c_str(), -1));
  return KeyOwner(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, refusePassPhrase, nullptr) : nullptr);
}

bool decryptOaep(EVP_PKEY* key, const unsigned char* block, std::size_t length, std::string& plain) {
  const KeyContextOwner context(EVP_PKEY_CTX_new(key, nullptr));
  plain.assign(static_cast<std::size_t>(EVP_PKEY_size(key)), '\0');
  std::size_t plainLength = plain.size();
  if (!context || EVP_PKEY_decrypt_init(context.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING) <= 0 ||
      EVP_PKEY_decrypt(context.get(), reinterpret_cast<unsigned char*>(plain.data()), &plainLength, block, length) <=
          0) {
    wipe(plain);
    return false;
  }
  plain.resize(plainLength);
  return true;
}

bool isWorkingPair(EVP_PKEY* privateKey, EVP_PKEY* publicKey) {
  const std::string text = "any text";
  std::string block(static_cast<std::size_t>(EVP_PKEY_size(publicKey)), '\0');
  std::size_t length = block.size();
  const KeyContextOwner context(EVP_PKEY_CTX_new(publicKey, nullptr));
  if (!context || EVP_PKEY_encrypt_init(context.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING) <= 0 ||
      EVP_PKEY_encrypt(context.get(), reinterpret_cast<unsigned char*>(block.data()), &length,
                       reinterpret_cast<const unsigned char*>(text.data()), text.size()) <= 0) {
    return false;
  }
  std::string plain;
  return decryptOaep(privateKey, reinterpret_cast<const unsigned char*>(block.data()), length, plain) && plain == text;
}

}  // namespace velo::ssoService
