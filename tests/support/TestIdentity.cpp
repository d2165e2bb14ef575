#include "support/TestIdentity.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <stdexcept>

#include "util/OpenSsl.h"

namespace test {
namespace {

using velo::ssoService::BioOwner;
using velo::ssoService::KeyContextOwner;
using velo::ssoService::KeyOwner;
using velo::ssoService::X509Owner;

void require(bool isDone, const char* step) {
  if (!isDone) {
    throw std::runtime_error(std::string("test identity: ") + step);
  }
}

using KeyParameters = int (*)(EVP_PKEY_CTX*);

template <int BITS>
int rsaParameters(EVP_PKEY_CTX* context) {
  return EVP_PKEY_CTX_set_rsa_keygen_bits(context, BITS);
}

int curveParameters(EVP_PKEY_CTX* context) {
  return EVP_PKEY_CTX_set_ec_paramgen_curve_nid(context, NID_X9_62_prime256v1);
}

KeyOwner makeKey(int type, KeyParameters setParameters) {
  const KeyContextOwner context(EVP_PKEY_CTX_new_id(type, nullptr));
  EVP_PKEY* key = nullptr;
  require(context && EVP_PKEY_keygen_init(context.get()) > 0 && setParameters(context.get()) > 0 &&
              EVP_PKEY_keygen(context.get(), &key) > 0,
          "key");
  return KeyOwner(key);
}

BioOwner memory() {
  return BioOwner(BIO_new(BIO_s_mem()));
}

std::string textOf(const BioOwner& bio) {
  std::string text(BIO_ctrl_pending(bio.get()), '\0');
  BIO_read(bio.get(), text.data(), static_cast<int>(text.size()));
  return text;
}

std::string privateKeyText(EVP_PKEY* key, const std::string& passPhrase = "") {
  const BioOwner bio = memory();
  std::string secret = passPhrase;
  const int written = PEM_write_bio_PKCS8PrivateKey(bio.get(), key, secret.empty() ? nullptr : EVP_aes_256_cbc(),
                                                    secret.data(), static_cast<int>(secret.size()), nullptr, nullptr);
  require(written > 0, "private key text");
  return textOf(bio);
}

std::string certificateText(X509* certificate) {
  const BioOwner bio = memory();
  require(PEM_write_bio_X509(bio.get(), certificate) > 0, "certificate text");
  return textOf(bio);
}

X509Owner makeCertificate(EVP_PKEY* key, const Subject& subject) {
  constexpr long ONE_DAY = 24 * 60 * 60;
  X509Owner certificate(X509_new());
  X509_NAME* name = X509_get_subject_name(certificate.get());
  for (const auto& [attribute, value] : subject) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(value.data());
    require(X509_NAME_add_entry_by_txt(name, attribute.c_str(), MBSTRING_UTF8, bytes, static_cast<int>(value.size()),
                                       -1, 0) > 0,
            "subject");
  }
  require(X509_set_version(certificate.get(), 2) > 0 &&
              ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1) > 0 &&
              X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0) != nullptr &&
              X509_gmtime_adj(X509_getm_notAfter(certificate.get()), ONE_DAY) != nullptr &&
              X509_set_issuer_name(certificate.get(), name) > 0 && X509_set_pubkey(certificate.get(), key) > 0 &&
              X509_sign(certificate.get(), key, EVP_sha256()) > 0,
          "certificate");
  return certificate;
}

TestIdentity makeIdentity(const KeyOwner& key, const Subject& subject) {
  return {privateKeyText(key.get()), certificateText(makeCertificate(key.get(), subject).get())};
}

}  // namespace

const TestIdentity& deviceIdentity() {
  static const TestIdentity identity =
      makeIdentity(makeKey(EVP_PKEY_RSA, rsaParameters<2048>), {{"CN", "device-0001"}});
  return identity;
}

const TestIdentity& otherIdentity() {
  static const TestIdentity identity =
      makeIdentity(makeKey(EVP_PKEY_RSA, rsaParameters<2048>), {{"CN", "device-0002"}});
  return identity;
}

const TestIdentity& smallIdentity() {
  static const TestIdentity identity =
      makeIdentity(makeKey(EVP_PKEY_RSA, rsaParameters<1024>), {{"CN", "device-0001"}});
  return identity;
}

const TestIdentity& curveIdentity() {
  static const TestIdentity identity = makeIdentity(makeKey(EVP_PKEY_EC, curveParameters), {{"CN", "device-0001"}});
  return identity;
}

std::string certificateWithSubject(const Subject& subject) {
  const KeyOwner key = velo::ssoService::readPrivateKey(deviceIdentity().privateKey);
  return certificateText(makeCertificate(key.get(), subject).get());
}

std::string certificateWithUnusableKey() {
  const KeyOwner key = velo::ssoService::readPrivateKey(deviceIdentity().privateKey);
  const X509Owner certificate = makeCertificate(key.get(), {{"CN", "device-0001"}});
  // commonName stands in the place of a key's algorithm.
  require(X509_PUBKEY_set0_param(X509_get_X509_PUBKEY(certificate.get()), OBJ_nid2obj(NID_commonName), V_ASN1_NULL,
                                 nullptr, nullptr, 0) > 0 &&
              X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0,
          "unusable key");
  return certificateText(certificate.get());
}

std::string publicKeyOf(const std::string& certificate) {
  const X509Owner parsed = velo::ssoService::readCertificate(certificate);
  const KeyOwner key(X509_get_pubkey(parsed.get()));
  const BioOwner bio = memory();
  require(key && PEM_write_bio_PUBKEY(bio.get(), key.get()) > 0, "public key text");
  return textOf(bio);
}

std::string encryptedPrivateKey(const std::string& passPhrase) {
  return privateKeyText(velo::ssoService::readPrivateKey(deviceIdentity().privateKey).get(), passPhrase);
}

bool verifiesRs256(const std::string& certificate, const std::string& text, const std::string& signature) {
  const X509Owner parsed = velo::ssoService::readCertificate(certificate);
  const KeyOwner key(X509_get_pubkey(parsed.get()));
  struct DigestReleaser {
    void operator()(EVP_MD_CTX* owned) const { EVP_MD_CTX_free(owned); }
  };
  const std::unique_ptr<EVP_MD_CTX, DigestReleaser> digest(EVP_MD_CTX_new());
  return key && digest && EVP_DigestVerifyInit(digest.get(), nullptr, EVP_sha256(), nullptr, key.get()) > 0 &&
         EVP_DigestVerify(digest.get(), reinterpret_cast<const unsigned char*>(signature.data()), signature.size(),
                          reinterpret_cast<const unsigned char*>(text.data()), text.size()) == 1;
}

}  // namespace test
