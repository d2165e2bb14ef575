// What the service relies on in <jwt-cpp/jwt.h>, whichever implementation of it is installed.

#include <gmock/gmock.h>
#include <jwt-cpp/jwt.h>

#include "json/json.h"
#include "support/DecodedToken.h"
#include "support/Terminal.h"
#include "support/TestIdentity.h"

namespace test {
namespace {

using json::jobject;
using testing::AnyOf;
using testing::HasSubstr;

std::string tokenWithSubject(const std::string& subject) {
  return jwt::create().set_type("JWT").set_subject(subject).sign(
      jwt::algorithm::rs256("", deviceIdentity().privateKey, "", ""));
}

TEST(JwtTest, EveryClaimIsSetOnce) {
  const auto time = std::chrono::system_clock::time_point(std::chrono::milliseconds(1700000000999));
  const DecodedToken token(jwt::create()
                               .set_type("JWT")
                               .set_subject("the subject")
                               .set_id("the id")
                               .set_not_before(time)
                               .set_expires_at(time + std::chrono::minutes(5))
                               .set_issued_at(time)
                               .set_issuer("the issuer")
                               .set_audience("the audience")
                               .sign(jwt::algorithm::rs256("", deviceIdentity().privateKey, "", "")));
  const jobject header = jobject::parse(token.header);
  EXPECT_EQ(header.size(), 2U);
  EXPECT_EQ(header["alg"].as_string(), "RS256");
  EXPECT_EQ(header["typ"].as_string(), "JWT");
  const jobject payload = jobject::parse(token.payload);
  const struct {
    const char* claim;
    bool isNumber;
    const char* value;
  } rows[] = {
      {"sub", false, "the subject"},  {"jti", false, "the id"},    {"nbf", true, "1700000000"},
      {"exp", true, "1700000300"},    {"iat", true, "1700000000"}, {"iss", false, "the issuer"},
      {"aud", false, "the audience"},
  };
  EXPECT_EQ(payload.size(), std::size(rows));
  for (const auto& row : rows) {
    EXPECT_EQ(payload[row.claim].is_number(), row.isNumber) << row.claim;
    EXPECT_EQ(payload[row.claim].is_string(), !row.isNumber) << row.claim;
    EXPECT_EQ(payload[row.claim].as_string(), row.value) << row.claim;
  }
}

TEST(JwtTest, OnlyWhatWasSetIsInTheToken) {
  const jobject payload = jobject::parse(DecodedToken(tokenWithSubject("x")).payload);
  EXPECT_EQ(payload.size(), 1U);
  EXPECT_EQ(payload["sub"].as_string(), "x");
}

TEST(JwtTest, LaterValueReplacesTheEarlierOne) {
  const auto algorithm = jwt::algorithm::rs256("", deviceIdentity().privateKey, "", "");
  const jobject payload =
      jobject::parse(DecodedToken(jwt::create().set_subject("a").set_subject("b").sign(algorithm)).payload);
  EXPECT_EQ(payload.size(), 1U);
  EXPECT_EQ(payload["sub"].as_string(), "b");
}

TEST(JwtTest, ClaimsOfEveryKindOfText) {
  const std::string texts[] = {
      "", " ", "a\"b\\c", "/C=DE/O=a b/CN=\xC3\xA4\xE2\x82\xAC", "https://idp/token?a=b&c=%20", std::string(16000, 'x'),
  };
  for (const std::string& text : texts) {
    const DecodedToken token(tokenWithSubject(text));
    EXPECT_TRUE(jobject::parse(token.payload)["sub"].as_string() == text) << text.substr(0, 50);
    EXPECT_TRUE(verifiesRs256(deviceIdentity().certificate, token.signedText, token.signature));
  }
}

TEST(JwtTest, DatesOfEveryCentury) {
  for (const std::int64_t seconds :
       {std::int64_t{0}, std::int64_t{2147483647}, std::int64_t{2147483648}, std::int64_t{4294967301}}) {
    const auto time = std::chrono::system_clock::time_point(std::chrono::seconds(seconds));
    const std::string token =
        jwt::create().set_issued_at(time).sign(jwt::algorithm::rs256("", deviceIdentity().privateKey, "", ""));
    EXPECT_EQ(jobject::parse(DecodedToken(token).payload)["iat"].as_string(), std::to_string(seconds));
  }
}

TEST(JwtTest, SignatureIsThatOfThePrivateKeyWhateverThePublicKeyIs) {
  for (const std::string& publicKey : {std::string(), std::string("no key"), publicKeyOf(deviceIdentity().certificate),
                                       publicKeyOf(otherIdentity().certificate)}) {
    const DecodedToken token(
        jwt::create().set_type("JWT").sign(jwt::algorithm::rs256(publicKey, deviceIdentity().privateKey, "", "")));
    EXPECT_TRUE(verifiesRs256(deviceIdentity().certificate, token.signedText, token.signature));
    EXPECT_FALSE(verifiesRs256(otherIdentity().certificate, token.signedText, token.signature));
  }
}

/// The text of what is thrown between loading the keys and signing; "nothing" without it.
std::string signingFailure(const std::string& publicKey, const std::string& privateKey,
                           const std::string& privateKeyPassword = "") {
  try {
    jwt::create().set_type("JWT").sign(jwt::algorithm::rs256(publicKey, privateKey, "", privateKeyPassword));
  } catch (const std::exception& thrown) {
    return thrown.what();
  }
  return "nothing";
}

TEST(JwtTest, KeysThatCannotSignThrowAClearText) {
  const std::string& key = deviceIdentity().privateKey;
  const std::string publicKey = publicKeyOf(deviceIdentity().certificate);
  const struct {
    const char* name;
    std::string publicKey;
    std::string privateKey;
  } rows[] = {
      {"no keys", "", ""},
      {"bad public key alone", "no key at all", ""},
      {"good public key alone", publicKey, ""},
      {"not PEM", publicKey, "no key at all"},
      {"cut short", publicKey, key.substr(0, key.size() / 2)},
      {"certificate", publicKey, deviceIdentity().certificate},
      {"public key as private key", publicKey, publicKey},
      {"elliptic curve", publicKey, curveIdentity().privateKey},
      {"encrypted", publicKey, encryptedPrivateKey("secret")},
  };
  for (const auto& row : rows) {
    EXPECT_THAT(signingFailure(row.publicKey, row.privateKey), AnyOf(HasSubstr("key"), HasSubstr("signature")))
        << row.name;
  }
}

TEST(JwtTest, ClaimsOfAnyLengthAreTakenOrRefused) {
  for (const char character : {'a', '/', '\x01'}) {
    for (const std::size_t length : {8000U, 16384U, 16385U, 130000U, 2000000U}) {
      try {
        const jobject payload = jobject::parse(DecodedToken(tokenWithSubject(std::string(length, character))).payload);
        EXPECT_EQ(payload.size(), 1U);
      } catch (const std::runtime_error& refusal) {
        EXPECT_STREQ(refusal.what(), "claims are too long");
        EXPECT_GT(length, 16384U);
      }
    }
  }
}

TEST(JwtTest, FailureDoesNotSpoilTheNextToken) {
  EXPECT_NE(signingFailure("", "no key at all"), "nothing");
  EXPECT_EQ(signingFailure("", deviceIdentity().privateKey), "nothing");
}

TEST(JwtTest, EncryptedKeyIsNotAskedForOnTheTerminal) {
  const std::string key = encryptedPrivateKey("secret");
  const std::string publicKey = publicKeyOf(deviceIdentity().certificate);
  EXPECT_EQ(shownOnTerminal([&] { signingFailure(publicKey, key); }), "");
  EXPECT_EQ(shownOnTerminal([&] { signingFailure(publicKey, key, "wrong"); }), "");
  EXPECT_EQ(shownOnTerminal([&] { signingFailure(publicKey, key, "secret"); }), "");
}

TEST(JwtTest, EncryptedKeySignsWithItsPassword) {
  const std::string key = encryptedPrivateKey("secret");
  EXPECT_EQ(signingFailure("", key, "secret"), "nothing");
  EXPECT_NE(signingFailure("", key, "wrong"), "nothing");
}

}  // namespace
}  // namespace test
