#include "support/EncryptedDiscovery.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <stdexcept>

#include "util/OpenSsl.h"

namespace test {
namespace {

using velo::ssoService::KeyContextOwner;
using velo::ssoService::KeyOwner;

constexpr std::size_t OAEP_OVERHEAD = 42;  // twice the SHA-1 digest and two bytes

KeyOwner encryptionKey(const std::string& certificate) {
  return KeyOwner(X509_get_pubkey(velo::ssoService::readCertificate(certificate).get()));
}

std::string encryptBlock(EVP_PKEY* key, const std::string& plain) {
  const KeyContextOwner context(EVP_PKEY_CTX_new(key, nullptr));
  std::string block(static_cast<std::size_t>(EVP_PKEY_size(key)), '\0');
  std::size_t length = block.size();
  if (!context || EVP_PKEY_encrypt_init(context.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING) <= 0 ||
      EVP_PKEY_encrypt(context.get(), reinterpret_cast<unsigned char*>(block.data()), &length,
                       reinterpret_cast<const unsigned char*>(plain.data()), plain.size()) <= 0) {
    throw std::runtime_error("cannot encrypt a block");
  }
  return block;
}

}  // namespace

std::string base64Encode(const std::string& bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');  // with the NUL that the encoder adds
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), reinterpret_cast<const unsigned char*>(bytes.data()),
                  static_cast<int>(bytes.size()));
  text.pop_back();
  return text;
}

std::string encryptBlocks(const std::vector<std::string>& plaintexts, const std::string& certificate) {
  const KeyOwner key = encryptionKey(certificate);
  std::string blocks;
  for (const std::string& plain : plaintexts) {
    blocks += encryptBlock(key.get(), plain);
  }
  return blocks;
}

std::string encryptDiscovery(const std::string& payload, const std::string& certificate) {
  const std::size_t room = static_cast<std::size_t>(EVP_PKEY_size(encryptionKey(certificate).get())) - OAEP_OVERHEAD;
  std::vector<std::string> pieces;
  for (std::size_t offset = 0; offset < payload.size(); offset += room) {
    pieces.push_back(payload.substr(offset, room));
  }
  return base64Encode(encryptBlocks(pieces, certificate));
}

std::string discoveryReply(const std::string& payload, const std::string& certificate) {
  return R"({"data":")" + encryptDiscovery(payload, certificate) + R"("})";
}

std::string discoveryPayload(const std::string& openIdConfigurationUrl) {
  return R"({"config":{"endpoints":{"veloIdConfiguration":")" + openIdConfigurationUrl + R"("}}})";
}

}  // namespace test
