// Reads the text of each private key once: OpenSSL takes longer over that than over using the key.

#include <openssl/bio.h>
#include <openssl/pem.h>

#include <map>
#include <string>

#include "util/OpenSsl.h"

extern "C" {

EVP_PKEY* __real_PEM_read_bio_PrivateKey(BIO* bio, EVP_PKEY** target, pem_password_cb* callback, void* argument);
EVP_PKEY* __wrap_PEM_read_bio_PrivateKey(BIO* bio, EVP_PKEY** target, pem_password_cb* callback, void* argument);
EVP_PKEY* __wrap_PEM_read_bio_PrivateKey(BIO* bio, EVP_PKEY** target, pem_password_cb* callback, void* argument) {
  static std::map<std::string, velo::ssoService::KeyOwner> keys;
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(bio, &bytes);
  const std::string text(bytes, static_cast<std::size_t>(length));
  auto known = keys.find(text);
  if (known == keys.end()) {
    EVP_PKEY* const key = __real_PEM_read_bio_PrivateKey(bio, target, callback, argument);
    if (key == nullptr) {
      return nullptr;
    }
    known = keys.emplace(text, key).first;
  }
  EVP_PKEY_up_ref(known->second.get());
  return known->second.get();
}
}
