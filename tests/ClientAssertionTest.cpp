// The token by which the device authenticates itself.

#include <gmock/gmock.h>

#include <set>

#include "SsoClient.h"
#include "json/json.h"
#include "logging/logging.h"
#include "support/DecodedToken.h"
#include "support/HttpServer.h"
#include "support/LogCapture.h"
#include "support/LoggedAt.h"
#include "support/ScriptedProvider.h"
#include "support/Terminal.h"
#include "support/TestClock.h"
#include "support/Thrown.h"
#include "support/UuidForm.h"
#include "support/WithinOneSecond.h"
#include "util/HttpExchange.h"

namespace test {
namespace {

using json::jobject;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using velo::ssoService::SsoClient;

const std::string NO_KEYS = "Cannot create authentication id token. No valid x509 key or certificate";
const std::string NOT_SIGNED = "Error creating SSO authentication id token: ";

class ClientAssertionTest : public testing::Test {
 protected:
  ~ClientAssertionTest() override { moveClock(std::chrono::seconds(0)); }

  ScriptedProvider provider;
  SsoClient client{"http://127.0.0.1/openid", &provider};
};

std::int64_t number(const jobject& document, const std::string& key) {
  EXPECT_TRUE(document[key].is_number()) << key;
  const std::string text = document[key].as_string();
  EXPECT_EQ(text.find_first_not_of("0123456789"), std::string::npos) << key << " is " << text;
  return std::stoll(text);
}

std::string text(const jobject& document, const std::string& key) {
  EXPECT_TRUE(document[key].is_string()) << key;
  return document[key].as_string();
}

TEST_F(ClientAssertionTest, HeaderHasTypeAndAlgorithm) {
  const jobject header = jobject::parse(DecodedToken(client.createAuthenticationIdToken()).header);
  EXPECT_EQ(header.size(), 2U);
  EXPECT_EQ(text(header, "alg"), "RS256");
  EXPECT_EQ(text(header, "typ"), "JWT");
}

TEST_F(ClientAssertionTest, PayloadHasExactlyTheSevenClaims) {
  const jobject payload = jobject::parse(DecodedToken(client.createAuthenticationIdToken()).payload);
  EXPECT_EQ(payload.size(), 7U);
  EXPECT_EQ(text(payload, "sub"), "device-0001");
  EXPECT_EQ(text(payload, "iss"), "device-0001");
  EXPECT_EQ(text(payload, "aud"), "");
  EXPECT_FALSE(text(payload, "jti").empty());
  number(payload, "nbf");
  number(payload, "exp");
  number(payload, "iat");
}

TEST_F(ClientAssertionTest, SubjectAndIssuerAreTheCertificateIdOfTheConstruction) {
  provider.certificateIdSource = [] { return "DE/O=\"Maker\"/CN=a b"; };
  SsoClient another("http", &provider);
  provider.certificateIdSource = [] { return "changed"; };
  const jobject payload = jobject::parse(DecodedToken(another.createAuthenticationIdToken()).payload);
  EXPECT_EQ(text(payload, "sub"), "DE/O=\"Maker\"/CN=a b");
  EXPECT_EQ(text(payload, "iss"), "DE/O=\"Maker\"/CN=a b");
}

TEST_F(ClientAssertionTest, AudienceIsTheTokenEndpoint) {
  const velo::ssoService::HttpLibrary library;
  HttpServer server;
  server.on("/openid", HttpReply{200, R"({"token_endpoint":"https://idp.example/oauth/token?a=b&c"})"});
  SsoClient configured(server.url("/openid"), &provider);
  configured.retrieveTokenEndpoint();
  const jobject payload = jobject::parse(DecodedToken(configured.createAuthenticationIdToken()).payload);
  EXPECT_EQ(text(payload, "aud"), "https://idp.example/oauth/token?a=b&c");
}

TEST_F(ClientAssertionTest, SignatureIsTheDeviceKeys) {
  const DecodedToken token(client.createAuthenticationIdToken());
  EXPECT_EQ(token.signature.size(), 256U);
  EXPECT_TRUE(verifiesRs256(deviceIdentity().certificate, token.signedText, token.signature));
  EXPECT_FALSE(verifiesRs256(otherIdentity().certificate, token.signedText, token.signature));
  EXPECT_FALSE(verifiesRs256(deviceIdentity().certificate, token.signedText + "x", token.signature));
}

TEST_F(ClientAssertionTest, TimesAreWholeSecondsOfOneReadingOfTheClock) {
  constexpr std::int64_t YEAR_2001 = 1000000000;
  constexpr std::int64_t YEAR_2038 = (std::int64_t{1} << 31) - 1;
  constexpr std::int64_t YEAR_2106 = (std::int64_t{1} << 32) + 5;
  for (const std::int64_t time : {YEAR_2001, velo::ssoService::currentSeconds(), YEAR_2038, YEAR_2106}) {
    const auto [token, now] = withinOneSecond([&, wanted = time] {
      moveClock(std::chrono::seconds(wanted - velo::ssoService::currentSeconds()));
      return std::pair(client.createAuthenticationIdToken(), velo::ssoService::currentSeconds());
    });
    const jobject payload = jobject::parse(DecodedToken(token).payload);
    EXPECT_EQ(number(payload, "iat"), now);
    EXPECT_EQ(number(payload, "nbf"), now);
    EXPECT_EQ(number(payload, "exp"), now + 300);
  }
}

TEST_F(ClientAssertionTest, TokensOfOneSecondDifferInIdAndSignatureOnly) {
  const auto tokens = withinOneSecond([&] {
    return std::pair(DecodedToken(client.createAuthenticationIdToken()),
                     DecodedToken(client.createAuthenticationIdToken()));
  });
  const jobject first = jobject::parse(tokens.first.payload);
  const jobject second = jobject::parse(tokens.second.payload);
  EXPECT_EQ(tokens.first.header, tokens.second.header);
  EXPECT_NE(tokens.first.signature, tokens.second.signature);
  EXPECT_NE(text(first, "jti"), text(second, "jti"));
  for (const char* claim : {"sub", "iss", "aud"}) {
    EXPECT_EQ(text(first, claim), text(second, claim));
  }
  for (const char* claim : {"nbf", "exp", "iat"}) {
    EXPECT_EQ(number(first, claim), number(second, claim));
  }
}

TEST_F(ClientAssertionTest, EveryIdIsARandomUuidInLowerCase) {
  std::set<std::string> ids;
  for (int count = 0; count < 50; ++count) {
    const std::string id = text(jobject::parse(DecodedToken(client.createAuthenticationIdToken()).payload), "jti");
    EXPECT_TRUE(hasUuidForm(id)) << id;
    ids.insert(id);
  }
  EXPECT_EQ(ids.size(), 50U);
}

TEST_F(ClientAssertionTest, PublicKeyIsAskedForFirst) {
  provider.calls.clear();
  client.createAuthenticationIdToken();
  client.createAuthenticationIdToken();
  EXPECT_THAT(provider.calls, ElementsAre("getPublicKey(false)", "getCertificate(false)", "getPrivateKey(false)",
                                          "getPublicKey(false)", "getPrivateKey(false)"));
}

TEST_F(ClientAssertionTest, NothingIsLoggedOnSuccess) {
  const LogCapture log;
  client.createAuthenticationIdToken();
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ClientAssertionTest, BothKeyTextsTooShortAreRefusedBeforeTheLibrarySeesThem) {
  const std::string nine(9, 'k');
  const std::string ten(10, 'k');
  const struct {
    std::string publicKey;
    std::string privateKey;
    bool isRefused;
  } rows[] = {
      {"", "", true},     {nine, nine, true}, {"", nine, true},   {nine, "", true},  {ten, "", false},
      {ten, nine, false}, {"", ten, false},   {nine, ten, false}, {ten, ten, false},
  };
  for (const auto& row : rows) {
    provider.publicKeySource = [&row] { return row.publicKey; };
    provider.privateKeySource = [&row] { return row.privateKey; };
    const LogCapture log;
    const std::string thrown = thrownBy([&] { client.createAuthenticationIdToken(); });
    if (row.isRefused) {
      EXPECT_EQ(thrown, "KCException: " + NO_KEYS);
      EXPECT_THAT(log.lines(), ElementsAre("SsoClient: " + NO_KEYS));
    } else {
      EXPECT_THAT(thrown, StartsWith("SsoException: " + NOT_SIGNED)) << row.publicKey << " " << row.privateKey;
    }
  }
}

TEST_F(ClientAssertionTest, PrivateKeyAloneIsEnough) {
  for (const char* publicKey : {"", "short", "no public key at all"}) {
    provider.publicKeySource = [publicKey] { return publicKey; };
    const DecodedToken token(client.createAuthenticationIdToken());
    EXPECT_TRUE(verifiesRs256(deviceIdentity().certificate, token.signedText, token.signature)) << publicKey;
  }
}

TEST_F(ClientAssertionTest, PrivateKeyThatCannotSignIsReportedWithTheLibrarysReason) {
  const std::string& key = deviceIdentity().privateKey;
  const struct {
    const char* name;
    std::string key;
  } rows[] = {
      {"none", ""},
      {"short", "short"},
      {"not PEM", "this is not a PEM text"},
      {"cut short", key.substr(0, key.size() / 2)},
      {"certificate", deviceIdentity().certificate},
      {"public key", publicKeyOf(deviceIdentity().certificate)},
      {"elliptic curve", curveIdentity().privateKey},
      {"encrypted", encryptedPrivateKey("secret")},
  };
  for (const auto& row : rows) {
    provider.privateKeySource = [&row] { return row.key; };
    const LogCapture log;
    const std::string thrown = thrownBy([&] { client.createAuthenticationIdToken(); });
    const std::string classOnly = "SsoException: ";
    ASSERT_THAT(thrown, StartsWith(classOnly + NOT_SIGNED)) << row.name;
    EXPECT_GT(thrown.size(), classOnly.size() + NOT_SIGNED.size()) << row.name << " needs a reason";
    EXPECT_THAT(log.lines(), ElementsAre("SsoClient: " + thrown.substr(classOnly.size()))) << row.name;
  }
}

TEST_F(ClientAssertionTest, FailureOfTheProviderPassesThroughUnchanged) {
  const LogCapture log;
  provider.privateKeySource = ScriptedProvider::fails("no private key");
  EXPECT_EQ(thrownBy([&] { client.createAuthenticationIdToken(); }), "KCException: no private key");
  provider.publicKeySource = ScriptedProvider::fails("no public key");
  provider.calls.clear();
  EXPECT_EQ(thrownBy([&] { client.createAuthenticationIdToken(); }), "KCException: no public key");
  EXPECT_THAT(provider.calls, ElementsAre("getPublicKey(false)"));
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(ClientAssertionTest, FailureChangesNothing) {
  provider.privateKeySource = [] { return "this is not a PEM text"; };
  EXPECT_NE(thrownBy([&] { client.createAuthenticationIdToken(); }), "nothing");
  provider.privateKeySource = [] { return deviceIdentity().privateKey; };
  EXPECT_EQ(thrownBy([&] { client.createAuthenticationIdToken(); }), "nothing");
}

TEST_F(ClientAssertionTest, EncryptedKeyIsNotAskedForOnTheTerminal) {
  provider.privateKeySource = [key = encryptedPrivateKey("secret")] { return key; };
  EXPECT_EQ(shownOnTerminal([&] { client.createAuthenticationIdToken(); }), "");
}

TEST_F(ClientAssertionTest, Levels) {
  provider.publicKeySource = [] { return ""; };
  provider.privateKeySource = [] { return ""; };
  EXPECT_TRUE(isLoggedAt(LOG_LEVEL_ERROR, "SsoClient: " + NO_KEYS, [&] { client.createAuthenticationIdToken(); }));
  provider.privateKeySource = [] { return "this is not a PEM text"; };
  std::string reason;
  try {
    client.createAuthenticationIdToken();
  } catch (const std::exception& thrown) {
    reason = thrown.what();
  }
  EXPECT_TRUE(isLoggedAt(LOG_LEVEL_ERROR, "SsoClient: " + reason, [&] { client.createAuthenticationIdToken(); }));
}

}  // namespace
}  // namespace test
