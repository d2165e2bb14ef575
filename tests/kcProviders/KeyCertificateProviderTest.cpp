// What every provider derives from its certificate, and the caches of that.

#include <gmock/gmock.h>
#include <openssl/err.h>

#include "kcProviders/KeyCertificateProvider.h"
#include "logging/logging.h"
#include "support/LogCapture.h"
#include "support/LoggedAt.h"
#include "support/ScriptedProvider.h"
#include "support/TestIdentity.h"
#include "support/Thrown.h"

namespace test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* ID_NOT_FOUND = "KCException: Cannot retrieve certificate id. Not found";
constexpr const char* NO_PUBLIC_KEY = "KCException: Cannot retrieve public key. X509_get_pubkey() FAILED";
constexpr const char* READING_ID =
    "kcProviders/KeyCertificateProvider: SSO Reading client_id from certificate subject.";
constexpr const char* GET_PUBLIC_KEY_FAILED = "kcProviders/KeyCertificateProvider: X509_get_pubkey() FAILED";

ScriptedProvider::Source gives(const std::string& text) {
  return [text] { return text; };
}

TEST(KeyCertificateProviderTest, PublicKeyIsTheCertificatesAsSubjectPublicKeyInfo) {
  ScriptedProvider provider;
  const std::string publicKey = provider.getPublicKey(false);
  EXPECT_EQ(publicKey, publicKeyOf(deviceIdentity().certificate));
  EXPECT_EQ(publicKey.rfind("-----BEGIN PUBLIC KEY-----\n", 0), 0U);
}

TEST(KeyCertificateProviderTest, TrustedCertificateIsRead) {
  std::string trusted = deviceIdentity().certificate;
  for (const char* mark : {"BEGIN ", "END "}) {
    trusted.insert(trusted.find(mark) + std::string(mark).size(), "TRUSTED ");
  }
  ScriptedProvider provider;
  provider.certificateSource = gives(trusted);
  EXPECT_EQ(provider.getPublicKey(false), publicKeyOf(deviceIdentity().certificate));
  EXPECT_EQ(provider.getCertificateId(false), "device-0001");
}

TEST(KeyCertificateProviderTest, PublicKeyOfAnyKindIsGiven) {
  ScriptedProvider provider(curveIdentity());
  EXPECT_EQ(provider.getPublicKey(false), publicKeyOf(curveIdentity().certificate));
}

TEST(KeyCertificateProviderTest, SecondCallDoesNotAskForTheCertificateAgain) {
  ScriptedProvider provider;
  const std::string publicKey = provider.getPublicKey(false);
  const std::string id = provider.getCertificateId(false);
  provider.calls.clear();
  EXPECT_EQ(provider.getPublicKey(false), publicKey);
  EXPECT_EQ(provider.getCertificateId(false), id);
  EXPECT_THAT(provider.calls, ElementsAre("getPublicKey(false)", "getCertificateId(false)"));
}

TEST(KeyCertificateProviderTest, ReloadIsPassedOnToTheCertificate) {
  ScriptedProvider provider;
  provider.getPublicKey(false);
  provider.getCertificateId(false);
  provider.calls.clear();
  provider.getPublicKey(true);
  provider.getCertificateId(true);
  EXPECT_THAT(provider.calls, ElementsAre("getPublicKey(true)", "getCertificate(true)", "getCertificateId(true)",
                                          "getCertificate(true)"));
}

TEST(KeyCertificateProviderTest, FirstCallAsksForTheCertificateWithoutReload) {
  ScriptedProvider provider;
  provider.getPublicKey(false);
  provider.getCertificateId(false);
  EXPECT_THAT(provider.calls, ElementsAre("getPublicKey(false)", "getCertificate(false)", "getCertificateId(false)",
                                          "getCertificate(false)"));
}

TEST(KeyCertificateProviderTest, ReloadDerivesFromTheNewCertificate) {
  ScriptedProvider provider;
  provider.getPublicKey(false);
  provider.getCertificateId(false);
  provider.certificateSource = gives(otherIdentity().certificate);
  EXPECT_EQ(provider.getPublicKey(true), publicKeyOf(otherIdentity().certificate));
  EXPECT_EQ(provider.getCertificateId(true), "device-0002");
}

TEST(KeyCertificateProviderTest, CertificateIdIsAllBehindTheFirstEqualsSign) {
  const struct {
    Subject subject;
    const char* id;
  } rows[] = {
      {{{"CN", "abc"}}, "abc"},
      {{{"C", "DE"}, {"CN", "abc"}}, "DE/CN=abc"},
      {{{"O", "Maker"}}, "Maker"},
      {{{"C", "DE"}, {"O", "Maker"}, {"CN", "device-0001"}}, "DE/O=Maker/CN=device-0001"},
      {{{"CN", "a=b=c"}}, "a=b=c"},
      {{{"CN", "a b"}, {"serialNumber", "7"}}, "a b/serialNumber=7"},
      {{{"CN", "ger\xC3\xA4t"}}, "ger\\xC3\\xA4t"},
  };
  for (const auto& row : rows) {
    ScriptedProvider provider;
    provider.certificateSource = gives(certificateWithSubject(row.subject));
    EXPECT_EQ(provider.getCertificateId(false), row.id);
  }
}

TEST(KeyCertificateProviderTest, CertificateWithoutIdIsRefusedAndNotCached) {
  const struct {
    const char* name;
    std::string certificate;
  } rows[] = {
      {"subject without attributes", certificateWithSubject({})},
      {"not PEM", "not PEM"},
      {"empty", ""},
      {"private key", deviceIdentity().privateKey},
  };
  for (const auto& row : rows) {
    ScriptedProvider provider;
    provider.certificateSource = gives(row.certificate);
    const LogCapture log;
    EXPECT_EQ(thrownBy([&] { provider.getCertificateId(false); }), ID_NOT_FOUND) << row.name;
    EXPECT_THAT(log.lines(), ElementsAre(READING_ID)) << row.name;
    provider.certificateSource = gives(deviceIdentity().certificate);
    EXPECT_EQ(provider.getCertificateId(false), "device-0001") << row.name;
  }
}

TEST(KeyCertificateProviderTest, FailedReloadOfTheIdLeavesTheCacheEmpty) {
  ScriptedProvider provider;
  provider.getCertificateId(false);
  provider.certificateSource = gives(certificateWithSubject({}));
  EXPECT_EQ(thrownBy([&] { provider.getCertificateId(true); }), ID_NOT_FOUND);
  EXPECT_EQ(thrownBy([&] { provider.getCertificateId(false); }), ID_NOT_FOUND);
}

TEST(KeyCertificateProviderTest, CertificateWithoutPublicKeyIsRefusedAndNotCached) {
  const struct {
    const char* name;
    std::string certificate;
  } rows[] = {
      {"not PEM", "not PEM"},
      {"empty", ""},
      {"cut short", deviceIdentity().certificate.substr(0, 400)},
      {"private key", deviceIdentity().privateKey},
      {"public key", publicKeyOf(deviceIdentity().certificate)},
      {"key of an unknown kind", certificateWithUnusableKey()},
  };
  for (const auto& row : rows) {
    ScriptedProvider provider;
    provider.getPublicKey(false);
    provider.certificateSource = gives(row.certificate);
    const LogCapture log;
    EXPECT_EQ(thrownBy([&] { provider.getPublicKey(true); }), NO_PUBLIC_KEY) << row.name;
    EXPECT_THAT(log.lines(), ElementsAre(GET_PUBLIC_KEY_FAILED)) << row.name;
    EXPECT_EQ(ERR_peek_error(), 0UL) << row.name;
    provider.certificateSource = gives(otherIdentity().certificate);
    EXPECT_EQ(provider.getPublicKey(false), publicKeyOf(otherIdentity().certificate)) << row.name;
  }
}

TEST(KeyCertificateProviderTest, FailureOfTheCertificatePassesThrough) {
  ScriptedProvider provider;
  provider.certificateSource = ScriptedProvider::fails("no certificate today");
  const LogCapture log;
  EXPECT_EQ(thrownBy([&] { provider.getPublicKey(false); }), "KCException: no certificate today");
  EXPECT_EQ(thrownBy([&] { provider.getCertificateId(false); }), "KCException: no certificate today");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(KeyCertificateProviderTest, FailureOfTheCertificateDropsThePublicKeyButNotTheId) {
  ScriptedProvider provider;
  provider.getPublicKey(false);
  provider.getCertificateId(false);
  provider.certificateSource = ScriptedProvider::fails("no certificate today");
  thrownBy([&] { provider.getPublicKey(true); });
  thrownBy([&] { provider.getCertificateId(true); });
  EXPECT_EQ(thrownBy([&] { provider.getPublicKey(false); }), "KCException: no certificate today");
  EXPECT_EQ(provider.getCertificateId(false), "device-0001");
}

TEST(KeyCertificateProviderTest, IdIsLoggedWhenDerivedOnly) {
  ScriptedProvider provider;
  const LogCapture log;
  provider.getCertificateId(false);
  provider.getCertificateId(false);
  EXPECT_THAT(log.lines(), ElementsAre(READING_ID));
  provider.getCertificateId(true);
  EXPECT_THAT(log.lines(), ElementsAre(READING_ID, READING_ID));
}

TEST(KeyCertificateProviderTest, PublicKeyIsDerivedWithoutALogLine) {
  ScriptedProvider provider;
  const LogCapture log;
  provider.getPublicKey(true);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(KeyCertificateProviderTest, Levels) {
  EXPECT_TRUE(isLoggedAt(LOG_LEVEL_INFO, READING_ID, [] { ScriptedProvider().getCertificateId(false); }));
  EXPECT_TRUE(isLoggedAt(LOG_LEVEL_ERROR, GET_PUBLIC_KEY_FAILED, [] {
    ScriptedProvider provider;
    provider.certificateSource = gives("not PEM");
    provider.getPublicKey(false);
  }));
}

TEST(KeyCertificateProviderTest, CloudUrlIsNeverGiven) {
  ScriptedProvider provider;
  const LogCapture log;
  for (const bool reload : {false, true}) {
    provider.cloudUrlSupported = false;
    EXPECT_EQ(thrownBy([&] { provider.getCloudUrl(reload); }),
              "KCException: Cloud URL retrieval is not supported by the certificate provider");
    provider.cloudUrlSupported = true;
    EXPECT_EQ(thrownBy([&] { provider.getCloudUrl(reload); }),
              "KCException: Cloud URL retrieval is supported but not implemented");
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
}  // namespace test
