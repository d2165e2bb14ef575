#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <string>

#include "support/EncryptedDiscovery.h"
#include "support/Terminal.h"
#include "support/TestIdentity.h"
#include "util/OpenSsl.h"

namespace {

using namespace velo::ssoService;

/// An object's PEM text, as the library's own function writes it.
template <typename Write>
std::string pemText(const Write& write) {
  const BioOwner bio(BIO_new(BIO_s_mem()));
  EXPECT_GT(write(bio.get()), 0);
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &bytes);
  return {bytes, static_cast<std::size_t>(length)};
}

std::string commonName(const X509Owner& certificate) {
  char name[64] = "";
  X509_NAME_get_text_by_NID(X509_get_subject_name(certificate.get()), NID_commonName, name, sizeof name);
  return name;
}

class OpenSsl : public testing::Test {
 protected:
  ErrorQueueCleaner cleaner;
};

TEST_F(OpenSsl, CertificateIsReadFromPemText) {
  const std::string& pem = test::deviceIdentity().certificate;
  for (const std::string& text : {pem, "text before\n" + pem, pem + "text behind",
                                  pem + test::otherIdentity().certificate, test::deviceIdentity().privateKey + pem}) {
    const X509Owner certificate = readCertificate(text);
    ASSERT_NE(certificate, nullptr) << text;
    EXPECT_EQ(commonName(certificate), "device-0001") << text;
  }
}

TEST_F(OpenSsl, TrustedCertificateIsReadAsWell) {
  const X509Owner plain = readCertificate(test::deviceIdentity().certificate);
  const std::string pem = pemText([&](BIO* bio) { return PEM_write_bio_X509_AUX(bio, plain.get()); });
  ASSERT_NE(pem.find("BEGIN TRUSTED CERTIFICATE"), std::string::npos);
  EXPECT_EQ(commonName(readCertificate(pem)), "device-0001");
}

TEST_F(OpenSsl, TextWithoutCertificateGivesNone) {
  const std::string& pem = test::deviceIdentity().certificate;
  for (const std::string& text : {std::string(), std::string("garbage"), pem.substr(0, pem.size() / 2), pem.substr(30),
                                  test::deviceIdentity().privateKey, std::string(1, '\0') + pem.substr(30)}) {
    EXPECT_EQ(readCertificate(text), nullptr) << text;
  }
}

TEST_F(OpenSsl, PrivateKeyIsReadFromPemText) {
  for (const test::TestIdentity* identity : {&test::deviceIdentity(), &test::smallIdentity(), &test::curveIdentity()}) {
    const KeyOwner key = readPrivateKey(identity->privateKey);
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(X509_check_private_key(readCertificate(identity->certificate).get(), key.get()), 1);
  }
  EXPECT_NE(readPrivateKey("text before\n" + test::deviceIdentity().privateKey + "text behind"), nullptr);
}

TEST_F(OpenSsl, TraditionalPrivateKeyIsReadAsWell) {
  const KeyOwner key = readPrivateKey(test::deviceIdentity().privateKey);
  const std::string pem = pemText([&](BIO* bio) {
    return PEM_write_bio_PrivateKey_traditional(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  });
  ASSERT_NE(pem.find("BEGIN RSA PRIVATE KEY"), std::string::npos);
  EXPECT_NE(readPrivateKey(pem), nullptr);
}

TEST_F(OpenSsl, TextWithoutPrivateKeyGivesNone) {
  const std::string& pem = test::deviceIdentity().privateKey;
  for (const std::string& text : {std::string(), std::string("garbage"), pem.substr(0, pem.size() / 2), pem.substr(30),
                                  test::deviceIdentity().certificate,
                                  test::publicKeyOf(test::deviceIdentity().certificate), std::string(1, '\0') + pem}) {
    EXPECT_EQ(readPrivateKey(text), nullptr) << text;
  }
}

TEST_F(OpenSsl, EncryptedPrivateKeyIsRefusedWithoutAPrompt) {
  for (const char* passPhrase : {"secret", "x"}) {
    const std::string pem = test::encryptedPrivateKey(passPhrase);
    EXPECT_EQ(readPrivateKey(pem), nullptr);
    EXPECT_EQ(test::shownOnTerminal([&] { readPrivateKey(pem); }), "");
  }
}

TEST_F(OpenSsl, ErrorQueueIsEmptiedWithTheCleanersScope) {
  {
    const ErrorQueueCleaner scope;
    EXPECT_EQ(readPrivateKey("garbage"), nullptr);
    EXPECT_EQ(readCertificate("garbage"), nullptr);
    EXPECT_NE(ERR_peek_error(), 0U);
  }
  EXPECT_EQ(ERR_peek_error(), 0U);
}

class Decryption : public OpenSsl {
 protected:
  bool decrypt(const std::string& block) {
    return decryptOaep(key.get(), reinterpret_cast<const unsigned char*>(block.data()), block.size(), plain);
  }

  const KeyOwner key = readPrivateKey(test::deviceIdentity().privateKey);
  std::string plain = "old text";
};

TEST_F(Decryption, GivesWhatWasEncrypted) {
  for (const std::string& text :
       {std::string("x"), std::string("\0a\0\xff", 4), std::string(214, 'm'), std::string()}) {
    EXPECT_TRUE(decrypt(test::encryptBlocks({text}, test::deviceIdentity().certificate)));
    EXPECT_EQ(plain, text);
  }
}

TEST_F(Decryption, RefusesOtherBlocks) {
  const std::string block = test::encryptBlocks({"text"}, test::deviceIdentity().certificate);
  std::string damaged = block;
  damaged[100] = static_cast<char>(damaged[100] ^ 1);
  for (const std::string& wrong :
       {std::string(), block.substr(0, 255), block + "x", damaged, std::string(256, '\0'), std::string(256, '\xff'),
        test::encryptBlocks({"text"}, test::otherIdentity().certificate)}) {
    plain = "old text";
    EXPECT_FALSE(decrypt(wrong));
    EXPECT_EQ(plain, "");
  }
}

TEST_F(Decryption, RefusesAnotherPadding) {
  const KeyContextOwner context(EVP_PKEY_CTX_new(key.get(), nullptr));
  std::string block(256, '\0');
  std::size_t length = block.size();
  ASSERT_GT(EVP_PKEY_encrypt_init(context.get()), 0);  // PKCS #1 version 1.5 where nothing else is said
  ASSERT_GT(EVP_PKEY_encrypt(context.get(), reinterpret_cast<unsigned char*>(block.data()), &length,
                             reinterpret_cast<const unsigned char*>("text"), 4),
            0);
  EXPECT_FALSE(decrypt(block));
}

TEST_F(Decryption, RefusesAKeyThatCannotDecrypt) {
  const KeyOwner curve = readPrivateKey(test::curveIdentity().privateKey);
  const std::string block = test::encryptBlocks({"text"}, test::deviceIdentity().certificate);
  EXPECT_FALSE(decryptOaep(curve.get(), reinterpret_cast<const unsigned char*>(block.data()), block.size(), plain));
  EXPECT_EQ(plain, "");
}

TEST_F(OpenSsl, KeyAndCertificateThatBelongTogetherAreAWorkingPair) {
  const auto isPair = [](const test::TestIdentity& key, const test::TestIdentity& certificate) {
    const KeyOwner privateKey = readPrivateKey(key.privateKey);
    const KeyOwner publicKey(X509_get_pubkey(readCertificate(certificate.certificate).get()));
    return isWorkingPair(privateKey.get(), publicKey.get());
  };
  EXPECT_TRUE(isPair(test::deviceIdentity(), test::deviceIdentity()));
  EXPECT_TRUE(isPair(test::smallIdentity(), test::smallIdentity()));
  EXPECT_FALSE(isPair(test::deviceIdentity(), test::otherIdentity()));
  EXPECT_FALSE(isPair(test::deviceIdentity(), test::smallIdentity()));
  EXPECT_FALSE(isPair(test::deviceIdentity(), test::curveIdentity()));
  EXPECT_FALSE(isPair(test::curveIdentity(), test::deviceIdentity()));
}

}  // namespace
