// What is made of a reply: its data member, the blocks in it, and the configuration in them.

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <csignal>

#include "Discovery.h"
#include "logging/logging.h"
#include "support/ChildProcess.h"
#include "support/EncryptedDiscovery.h"
#include "support/HttpServer.h"
#include "support/LogCapture.h"
#include "support/LoggedAt.h"
#include "support/OpenDescriptors.h"
#include "support/ScriptedProvider.h"
#include "support/Thrown.h"
#include "util/HttpExchange.h"
#include "util/Signals.h"

namespace test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using velo::ssoService::Discovery;

const std::string WELL_KNOWN = "https://idp.example/.well-known/openid-configuration";
const std::string NOT_JSON = "Error processing JSON returned by Discovery Request.Input is not a valid object";
const std::string NOT_FOUND = "config.endpoints.veloIdConfiguration not found";

class DiscoveryDecryptionTest : public testing::Test {
 protected:
  void answer(const std::string& body) { server.on("/device-0001", HttpReply{200, body}); }
  void answerData(const std::string& data) { answer(R"({"data":")" + data + R"("})"); }
  void answerBytes(const std::string& bytes) { answerData(base64Encode(bytes)); }
  void answerBlocks(const std::vector<std::string>& plaintexts) {
    answerBytes(encryptBlocks(plaintexts, deviceIdentity().certificate));
  }
  void answerPayload(const std::string& payload) { answer(discoveryReply(payload, deviceIdentity().certificate)); }

  /// Why a retrieval fails, freed of what is said about the backup file; "nothing" when it succeeds.
  std::string failure() {
    static const std::string BEFORE = "SsoException: Couldn't retrieve configuration from the cloud: ";
    static const std::string BEHIND = " Cloud config caching not enabled";
    const std::string thrown = thrownBy([&] { discovery.retrieveConfiguration(); });
    if (thrown == "nothing") {
      return thrown;
    }
    EXPECT_EQ(thrown.substr(0, BEFORE.size()), BEFORE);
    EXPECT_EQ(thrown.substr(thrown.size() - BEHIND.size()), BEHIND);
    return thrown.substr(BEFORE.size(), thrown.size() - BEFORE.size() - BEHIND.size());
  }

  /// What a retrieval logs between the lines about the response and about the backup file.
  std::vector<std::string> lines() {
    constexpr int BEFORE = 2;
    const LogCapture log;
    thrownBy([&] { discovery.retrieveConfiguration(); });
    std::vector<std::string> all = log.lines();
    all.erase(all.begin(), all.begin() + BEFORE);
    if (!all.empty() && all.back().find("Cloud config caching not enabled") != std::string::npos) {
      all.pop_back();
    }
    return all;
  }

  const velo::ssoService::HttpLibrary library;
  HttpServer server;
  ScriptedProvider provider;
  Discovery discovery{server.url("/"), false, "", &provider};
};

TEST_F(DiscoveryDecryptionTest, ReplyWithoutUsableDataIsRefused) {
  const std::string processing = "Error processing JSON returned by Discovery Request";
  const std::string missing = "JSON returned by Discovery Request is missing data tag.";
  const std::string logMissing = "Discovery: Discovery Request, missing data tag";
  const std::string notJson = "Input is not a valid object";
  const struct {
    std::string reply;
    std::string reason;
    std::vector<std::string> lines;
  } rows[] = {
      {R"({"data":5})", processing + "." + missing, {logMissing, "Discovery: " + processing + ": " + missing}},
      {R"({"data":null})", processing + "." + missing, {logMissing, "Discovery: " + processing + ": " + missing}},
      {R"({"data":true})", processing + "." + missing, {logMissing, "Discovery: " + processing + ": " + missing}},
      {R"({"data":{}})", processing + "." + missing, {logMissing, "Discovery: " + processing + ": " + missing}},
      {R"({"data":["eA=="]})", processing + "." + missing, {logMissing, "Discovery: " + processing + ": " + missing}},
      {"{}", processing + ".data", {"Discovery: " + processing + ": data"}},
      {R"({"Data":"eA=="})", processing + ".data", {"Discovery: " + processing + ": data"}},
      {"[]", processing + ".data", {"Discovery: " + processing + ": data"}},
      {R"(["data","eA=="])", processing + ".data", {"Discovery: " + processing + ": data"}},
      {"", processing + "." + notJson, {"Discovery: " + processing + ": " + notJson}},
      {" \n", processing + "." + notJson, {"Discovery: " + processing + ": " + notJson}},
      {"<html>%s%n</html>", processing + "." + notJson, {"Discovery: " + processing + ": " + notJson}},
      {R"({"data":"eA==")", processing + "." + notJson, {"Discovery: " + processing + ": " + notJson}},
      {R"("data")", processing + "." + notJson, {"Discovery: " + processing + ": " + notJson}},
      {R"({"data":"x","data":"y"})", processing + ".Key conflict", {"Discovery: " + processing + ": Key conflict"}},
      {R"({"data":""})",
       "Nothing to decrypt",
       {"Discovery: Discovery Request, found data tag.", "Discovery: Nothing to decrypt"}},
  };
  for (const auto& row : rows) {
    answer(row.reply);
    EXPECT_EQ(failure(), row.reason) << row.reply;
    EXPECT_THAT(lines(), ElementsAreArray(row.lines)) << row.reply;
    EXPECT_FALSE(discovery.hasConfiguration());
  }
}

TEST_F(DiscoveryDecryptionTest, OtherMembersOfTheReplyAreIgnored) {
  answer(R"( {"version":[1,{"data":2}], "data": ")" +
         encryptDiscovery(discoveryPayload(WELL_KNOWN), deviceIdentity().certificate) + "\"\n, \"more\":null} tail");
  EXPECT_EQ(failure(), "nothing");
  EXPECT_EQ(discovery.getSsoWellKnownUrl(), WELL_KNOWN);
}

TEST_F(DiscoveryDecryptionTest, BlocksAreJoinedInOrderWithNothingBetween) {
  const std::string payload = discoveryPayload(WELL_KNOWN);
  for (const std::size_t first : {std::size_t{1}, std::size_t{2}, std::size_t{40}, payload.size() - 1}) {
    answerBlocks({payload.substr(0, first), payload.substr(first)});
    EXPECT_EQ(failure(), "nothing");
    EXPECT_EQ(discovery.getDiscoveryData(), payload);
  }
}

TEST_F(DiscoveryDecryptionTest, ManyBlocks) {
  std::vector<std::string> blocks = {R"({"config":{"endpoints":{"veloIdConfiguration":"x"}},"filler":")"};
  blocks.insert(blocks.end(), 20, std::string(214, '\xC3'));
  blocks.emplace_back("\"}");
  answerBlocks(blocks);
  EXPECT_EQ(failure(), "nothing");
  std::string payload;
  for (const std::string& block : blocks) {
    payload += block;
  }
  EXPECT_EQ(discovery.getDiscoveryData(), payload);
  EXPECT_EQ(lines().at(22 + 2), "Discovery: string offset : 5376");
}

TEST_F(DiscoveryDecryptionTest, PlaintextOfABlockEndsAtItsFirstNul) {
  using namespace std::string_literals;
  answerBlocks({R"({"config":{"endpoints":{"veloId)"s + "\0{{{"s, "\0only NUL first"s, R"(Configuration":"x"}}})"s});
  EXPECT_EQ(failure(), "nothing");
  EXPECT_EQ(discovery.getDiscoveryData(), R"({"config":{"endpoints":{"veloIdConfiguration":"x"}}})");
}

TEST_F(DiscoveryDecryptionTest, BlockWithoutPlaintextFailsAndDropsTheData) {
  answerBlocks({discoveryPayload(WELL_KNOWN), ""});
  EXPECT_EQ(failure(), "Failed to decrypt Discovery Request.");
  EXPECT_THAT(lines(),
              ElementsAre("Discovery: Discovery Request, found data tag.", "Discovery: base64 decoded size: 512",
                          "Discovery: Decrypting Discovery Request: 512 size", "Discovery: string offset : 0",
                          "Discovery: string offset : 256", "Discovery: AsymmetricPrivateKeyDecryption() FAILED"));
  EXPECT_FALSE(discovery.hasConfiguration());
  answerPayload(discoveryPayload("another"));
  EXPECT_EQ(discovery.getDiscoveryData(), discoveryPayload("another")) << "a new attempt was due";
}

TEST_F(DiscoveryDecryptionTest, ShortLastBlockFailsAndLeavesTheDataBeforeIt) {
  const std::string payload = discoveryPayload(WELL_KNOWN);
  answerBytes(encryptBlocks({payload, "x"}, deviceIdentity().certificate).substr(0, 300));
  EXPECT_EQ(failure(), "Decrypting Discovery data: RSA_private_decrypt() FAILED");
  EXPECT_THAT(lines(),
              ElementsAre("Discovery: Discovery Request, found data tag.", "Discovery: base64 decoded size: 300",
                          "Discovery: Decrypting Discovery Request: 300 size", "Discovery: string offset : 0",
                          "Discovery: string offset : 256", "Discovery: RSA_private_decrypt() FAILED"));
  EXPECT_FALSE(discovery.hasConfiguration());
  const std::size_t requestsBefore = server.requestLines().size();
  EXPECT_EQ(discovery.getDiscoveryData(), payload);
  EXPECT_EQ(server.requestLines().size(), requestsBefore) << "no new attempt";
}

TEST_F(DiscoveryDecryptionTest, DataWithoutValidBase64DecryptsToNothing) {
  answerData("!!!!");
  EXPECT_EQ(failure(), NOT_JSON);
  EXPECT_THAT(lines(), ElementsAre("Discovery: Discovery Request, found data tag.", "Discovery: base64 decoded size: 0",
                                   "Discovery: Decrypting Discovery Request: 0 size",
                                   "Discovery: Discovery Request successfully decoded",
                                   "Discovery: Error processing JSON returned by Discovery Request: "
                                   "Input is not a valid object"));
}

TEST_F(DiscoveryDecryptionTest, DataIsDecodedUpToALineBreakOnly) {
  std::string data = encryptDiscovery(discoveryPayload(WELL_KNOWN), deviceIdentity().certificate);
  data.insert(76, "\\n");
  answerData(data);
  EXPECT_EQ(failure(), "Decrypting Discovery data: RSA_private_decrypt() FAILED");
  EXPECT_EQ(lines().at(1), "Discovery: base64 decoded size: 57");
}

TEST_F(DiscoveryDecryptionTest, DataThatWasNotEncryptedForTheDeviceFails) {
  const std::string block = encryptBlocks({discoveryPayload(WELL_KNOWN)}, deviceIdentity().certificate);
  std::string changed = block;
  changed[128] = static_cast<char>(changed[128] ^ 1);
  const struct {
    const char* name;
    std::string bytes;
  } rows[] = {
      {"changed bit", changed},
      {"one byte short", block.substr(0, 255)},
      {"one byte", "x"},
      {"another device's", encryptBlocks({"{}"}, otherIdentity().certificate)},
      {"plain text", std::string(256, '{')},
      {"zeros", std::string(256, '\0')},
      {"larger than the modulus", std::string(256, '\xFF')},
  };
  for (const auto& row : rows) {
    answerBytes(row.bytes);
    EXPECT_EQ(failure(), "Decrypting Discovery data: RSA_private_decrypt() FAILED") << row.name;
    EXPECT_EQ(lines().back(), "Discovery: RSA_private_decrypt() FAILED") << row.name;
  }
}

TEST_F(DiscoveryDecryptionTest, PrivateKeyThatCannotDecryptFails) {
  const std::string readFailed = "Decrypting Discovery data: PEM_read_bio_PrivateKey() FAILED";
  const std::string& key = deviceIdentity().privateKey;
  const struct {
    const char* name;
    std::string key;
    std::string reason;
    std::string line;
  } rows[] = {
      {"none", "", "Decrypting Discovery Request Failed - No private key provided",
       "Discovery: Decrypting Discovery Request Failed - No private key provided"},
      {"not PEM", "not PEM", readFailed, "Discovery: PEM_read_bio_PrivateKey() FAILED"},
      {"cut short", key.substr(0, key.size() / 2), readFailed, "Discovery: PEM_read_bio_PrivateKey() FAILED"},
      {"certificate", deviceIdentity().certificate, readFailed, "Discovery: PEM_read_bio_PrivateKey() FAILED"},
      {"public key", publicKeyOf(deviceIdentity().certificate), readFailed,
       "Discovery: PEM_read_bio_PrivateKey() FAILED"},
      {"encrypted", encryptedPrivateKey("secret"), readFailed, "Discovery: PEM_read_bio_PrivateKey() FAILED"},
      {"behind a NUL", std::string(1, '\0') + key, readFailed, "Discovery: PEM_read_bio_PrivateKey() FAILED"},
      {"elliptic curve", curveIdentity().privateKey, readFailed, "Discovery: EVP_PKEY_get1_RSA() FAILED"},
      {"another one", otherIdentity().privateKey, "Decrypting Discovery data: RSA_private_decrypt() FAILED",
       "Discovery: RSA_private_decrypt() FAILED"},
      {"too small", smallIdentity().privateKey, "Decrypting Discovery data: RSA_private_decrypt() FAILED",
       "Discovery: RSA_private_decrypt() FAILED"},
  };
  answerPayload(discoveryPayload(WELL_KNOWN));
  for (const auto& row : rows) {
    provider.privateKeySource = [&row] { return row.key; };
    EXPECT_EQ(failure(), row.reason) << row.name;
    EXPECT_EQ(lines().back(), row.line) << row.name;
    EXPECT_FALSE(discovery.hasConfiguration());
  }
}

TEST_F(DiscoveryDecryptionTest, FailureOfThePrivateKeyIsTold) {
  answerPayload(discoveryPayload(WELL_KNOWN));
  provider.privateKeySource = ScriptedProvider::fails("key locked");
  EXPECT_EQ(failure(), "key locked");
  EXPECT_THAT(lines(),
              ElementsAre("Discovery: Discovery Request, found data tag.", "Discovery: base64 decoded size: 256"));
}

TEST_F(DiscoveryDecryptionTest, PrivateKeyIsAskedForOnceForAllBlocksAndOnlyAfterTheData) {
  answerBlocks({"{}", " ", " "});
  provider.calls.clear();
  failure();
  EXPECT_THAT(provider.calls, ElementsAre("getPrivateKey(false)"));
  provider.calls.clear();
  answerData("");
  failure();
  EXPECT_THAT(provider.calls, IsEmpty());
}

TEST_F(DiscoveryDecryptionTest, SmallKeyDecryptsASingleBlock) {
  provider.privateKeySource = [] { return smallIdentity().privateKey; };
  answerBytes(encryptBlocks({R"({"config":{"endpoints":{"veloIdConfiguration":"x"}}})"}, smallIdentity().certificate));
  EXPECT_EQ(failure(), "nothing");
}

TEST_F(DiscoveryDecryptionTest, PayloadWithoutTheUrlIsRefusedButKept) {
  const char* payloads[] = {
      "{}",
      "[]",
      R"(["config"])",
      R"({"config":5})",
      R"({"config":"endpoints"})",
      R"({"config":null})",
      R"({"config":[]})",
      R"({"config":{}})",
      R"({"config":{"endpoints":"x"}})",
      R"({"config":{"endpoints":[]}})",
      R"({"config":{"endpoints":["veloIdConfiguration"]}})",
      R"({"config":{"endpoints":{}}})",
      R"({"config":{"endpoints":{"veloIdConfiguration":5}}})",
      R"({"config":{"endpoints":{"veloIdConfiguration":null}}})",
      R"({"config":{"endpoints":{"veloIdConfiguration":{"url":"x"}}}})",
      R"({"config":{"endpoints":{"VeloIdConfiguration":"x"}}})",
      R"({"endpoints":{"veloIdConfiguration":"x"}})",
      R"({"config":{"veloIdConfiguration":"x"}})",
  };
  for (const char* payload : payloads) {
    answerPayload(payload);
    EXPECT_EQ(failure(), NOT_FOUND) << payload;
    EXPECT_EQ(lines().back(), "Discovery: Discovery Request successfully decoded") << payload;
    EXPECT_FALSE(discovery.hasConfiguration());
    const std::size_t requestsBefore = server.requestLines().size();
    EXPECT_EQ(discovery.getDiscoveryData(), payload);
    EXPECT_EQ(server.requestLines().size(), requestsBefore) << "no new attempt";
    EXPECT_NE(thrownBy([&] { discovery.getSsoWellKnownUrl(); }), "nothing");
    EXPECT_EQ(server.requestLines().size(), requestsBefore + 1);
  }
}

TEST_F(DiscoveryDecryptionTest, EmptyUrlIsFoundAndRefused) {
  answerPayload(discoveryPayload(""));
  EXPECT_EQ(failure(), NOT_FOUND);
  EXPECT_EQ(lines().back(), "Discovery: SSO well known endpoint found: ");
}

TEST_F(DiscoveryDecryptionTest, PayloadThatIsNotJsonIsRefusedButKept) {
  for (const char* payload : {"x", " ", "{", R"({"config":})", "\"config\"", R"({"config" {}})"}) {
    answerPayload(payload);
    EXPECT_EQ(failure(), NOT_JSON) << payload;
    EXPECT_EQ(lines().back(),
              "Discovery: Error processing JSON returned by Discovery Request: Input is not a valid object");
    EXPECT_EQ(discovery.getDiscoveryData(), payload);
  }
}

TEST_F(DiscoveryDecryptionTest, BrokenObjectInsideThePayloadIsTold) {
  answerPayload(R"({"config":{"a":1,"a":2}})");
  EXPECT_EQ(failure(), "Error processing JSON returned by Discovery Request.Key conflict");
  EXPECT_EQ(lines().back(), "Discovery: Error processing JSON returned by Discovery Request: Key conflict");
}

TEST_F(DiscoveryDecryptionTest, PayloadIsPassedOnUntouched) {
  const std::string payload =
      " {\n\t\"config\" : { \"endpoints\" : { \"other\" : 1 , \"veloIdConfiguration\" : \"u\" } },"
      " \"name\":\"ger\xC3\xA4t\" } \n";
  answerPayload(payload);
  EXPECT_EQ(discovery.getDiscoveryData(), payload);
  EXPECT_EQ(discovery.getSsoWellKnownUrl(), "u");
}

TEST_F(DiscoveryDecryptionTest, NothingSecretIsLogged) {
  answerPayload(R"({"config":{"endpoints":{"veloIdConfiguration":"x"}},"inner":"for the device alone"})");
  for (const std::string& line : lines()) {
    EXPECT_EQ(line.find("PRIVATE KEY"), std::string::npos) << line;
    EXPECT_EQ(line.find("for the device alone"), std::string::npos) << line;
  }
}

TEST_F(DiscoveryDecryptionTest, NoDescriptorStaysOpen) {
  answerPayload(discoveryPayload(WELL_KNOWN));
  failure();
  const OpenDescriptors open;
  failure();
  EXPECT_TRUE(open.areAsBefore());
  for (const std::string& key : {std::string("not PEM"), curveIdentity().privateKey, otherIdentity().privateKey}) {
    provider.privateKeySource = [&key] { return key; };
    failure();
    EXPECT_TRUE(open.areAsBefore());
  }
}

TEST_F(DiscoveryDecryptionTest, Levels) {
  const std::string good =
      discoveryReply(R"({"config":{"endpoints":{"veloIdConfiguration":"x"}}})", deviceIdentity().certificate);
  const std::string key = deviceIdentity().privateKey;
  const struct {
    int level;
    std::string message;
    std::string reply;
    std::string key;
  } rows[] = {
      {LOG_LEVEL_DEBUG, "Discovery Request, found data tag.", good, key},
      {LOG_LEVEL_ERROR, "Discovery Request, missing data tag", R"({"data":1})", key},
      {LOG_LEVEL_ERROR, "Error processing JSON returned by Discovery Request: data", "{}", key},
      {LOG_LEVEL_ERROR, "Nothing to decrypt", R"({"data":""})", key},
      {LOG_LEVEL_DEBUG, "base64 decoded size: 256", good, key},
      {LOG_LEVEL_ERROR, "Decrypting Discovery Request Failed - No private key provided", good, ""},
      {LOG_LEVEL_DEBUG, "Decrypting Discovery Request: 256 size", good, key},
      {LOG_LEVEL_VERBOSE, "string offset : 0", good, key},
      {LOG_LEVEL_ERROR, "AsymmetricPrivateKeyDecryption() FAILED",
       R"({"data":")" + base64Encode(encryptBlocks({""}, deviceIdentity().certificate)) + R"("})", key},
      {LOG_LEVEL_DEBUG, "Discovery Request successfully decoded", good, key},
      {LOG_LEVEL_ERROR, "PEM_read_bio_PrivateKey() FAILED", good, "not PEM"},
      {LOG_LEVEL_ERROR, "EVP_PKEY_get1_RSA() FAILED", good, curveIdentity().privateKey},
      {LOG_LEVEL_ERROR, "RSA_private_decrypt() FAILED", good, otherIdentity().privateKey},
      {LOG_LEVEL_DEBUG, "SSO well known endpoint found: x", good, key},
  };
  for (const auto& row : rows) {
    answer(row.reply);
    provider.privateKeySource = [&row] { return row.key; };
    EXPECT_TRUE(isLoggedAt(row.level, "Discovery: " + row.message, [&] { discovery.retrieveConfiguration(); }));
  }
}

TEST_F(DiscoveryDecryptionTest, StopEndsItAfterASecond) {
  std::string bytes = encryptBlocks({"x"}, deviceIdentity().certificate);
  while (bytes.size() < 1024 * 1024) {
    bytes += bytes;
  }
  answerBytes(bytes);
  EXPECT_EQ(runInChild([this] {
              velo::ssoService::takeSignals();
              ::raise(SIGTERM);
              const auto begin = std::chrono::steady_clock::now();
              EXPECT_EQ(failure(), "Decrypting Discovery Request was ended by a stop");
              EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
            }),
            0);
}

TEST_F(DiscoveryDecryptionTest, StopDoesNotEndAShortOne) {
  answerPayload(discoveryPayload(WELL_KNOWN));
  EXPECT_EQ(runInChild([this] {
              velo::ssoService::takeSignals();
              ::raise(SIGTERM);
              EXPECT_EQ(failure(), "nothing");
            }),
            0);
}

}  // namespace
}  // namespace test
