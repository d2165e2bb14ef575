// The exchange with the local key service: what is asked, what is taken, and how it fails.

#include <gmock/gmock.h>

#include <vector>

#include "kcProviders/OrvexKCProvider.h"
#include "support/DeadPorts.h"
#include "support/KeyService.h"
#include "support/LogCapture.h"
#include "support/OpenDescriptors.h"
#include "support/TestIdentity.h"
#include "support/Thrown.h"

namespace test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using velo::ssoService::OrvexKCProvider;

class OrvexKCProviderTest : public testing::Test {
 protected:
  KeyService service;
  OrvexKCProvider provider{service.port()};
};

TEST_F(OrvexKCProviderTest, NothingIsConnectedAtConstruction) {
  const LogCapture log;
  const OpenDescriptors open;
  const OrvexKCProvider another(service.port());
  EXPECT_TRUE(open.areAsBefore());
  EXPECT_EQ(service.connectionCount(), 0U);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(OrvexKCProviderTest, RequestIsTheBareWord) {
  service.serve("the key", "the certificate");
  EXPECT_EQ(provider.getPrivateKey(false), "the key");
  EXPECT_EQ(provider.getCertificate(false), "the certificate");
  EXPECT_THAT(service.requests(), ElementsAre("privatekey", "certificate"));
}

TEST_F(OrvexKCProviderTest, ExchangeForTheKeyIsLoggedStepByStep) {
  service.serve("the key", "the certificate");
  const LogCapture log;
  provider.getPrivateKey(false);
  EXPECT_THAT(log.lines(), ElementsAre("kcProviders/OrvexKCProvider: Orvex retrieving the key",
                                       "kcProviders/OrvexKCProvider: Orvex Sending privatekey key/certificate request",
                                       "kcProviders/OrvexKCProvider: Orvex Key Certificate socket successfully created",
                                       "kcProviders/OrvexKCProvider: Orvex Key Certificate connected to the server",
                                       "kcProviders/OrvexKCProvider: Orvex Sending privatekey key/certificate request",
                                       "kcProviders/OrvexKCProvider: Orvex Key Certificate request sent 10 bytes",
                                       "kcProviders/OrvexKCProvider: SSO API request message size: 7",
                                       "kcProviders/OrvexKCProvider: Total bytes read 7"));
}

TEST_F(OrvexKCProviderTest, ExchangeForTheCertificateIsLoggedStepByStep) {
  service.serve("the key", "the certificate");
  const LogCapture log;
  provider.getCertificate(false);
  EXPECT_THAT(log.lines(), ElementsAre("kcProviders/OrvexKCProvider: Orvex retrieving the certificate",
                                       "kcProviders/OrvexKCProvider: Orvex Sending certificate key/certificate request",
                                       "kcProviders/OrvexKCProvider: Orvex Key Certificate socket successfully created",
                                       "kcProviders/OrvexKCProvider: Orvex Key Certificate connected to the server",
                                       "kcProviders/OrvexKCProvider: Orvex Sending certificate key/certificate request",
                                       "kcProviders/OrvexKCProvider: Orvex Key Certificate request sent 11 bytes",
                                       "kcProviders/OrvexKCProvider: SSO API request message size: 15",
                                       "kcProviders/OrvexKCProvider: Total bytes read 15"));
}

TEST_F(OrvexKCProviderTest, CachedTextsAreGivenInSilence) {
  service.serve("the key", "the certificate");
  provider.getPrivateKey(false);
  provider.getCertificate(false);
  const LogCapture log;
  EXPECT_EQ(provider.getPrivateKey(false), "the key");
  EXPECT_EQ(provider.getCertificate(false), "the certificate");
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(service.connectionCount(), 2U);
}

TEST_F(OrvexKCProviderTest, ReloadMakesANewExchange) {
  service.serve("old key", "old certificate");
  provider.getPrivateKey(false);
  provider.getCertificate(false);
  service.serve("new key", "new certificate");
  EXPECT_EQ(provider.getPrivateKey(true), "new key");
  EXPECT_EQ(provider.getCertificate(true), "new certificate");
  EXPECT_EQ(provider.getPrivateKey(false), "new key");
  EXPECT_EQ(provider.getCertificate(false), "new certificate");
  EXPECT_EQ(service.connectionCount(), 4U);
}

TEST_F(OrvexKCProviderTest, ReloadedCertificateEmptiesThePublicKeyButNotTheId) {
  service.serve("key", deviceIdentity().certificate);
  EXPECT_EQ(provider.getPublicKey(false), publicKeyOf(deviceIdentity().certificate));
  EXPECT_EQ(provider.getCertificateId(false), "device-0001");
  service.serve("key", otherIdentity().certificate);
  EXPECT_EQ(provider.getPublicKey(false), publicKeyOf(deviceIdentity().certificate));
  provider.getCertificate(true);
  EXPECT_EQ(provider.getPublicKey(false), publicKeyOf(otherIdentity().certificate));
  EXPECT_EQ(provider.getCertificateId(false), "device-0001");
}

TEST_F(OrvexKCProviderTest, FailedReloadEmptiesTheCache) {
  service.serve("old key", deviceIdentity().certificate);
  provider.getPrivateKey(false);
  provider.getPublicKey(false);
  service.serve("Error 1", "Error 2");
  EXPECT_EQ(thrownBy([&] { provider.getPrivateKey(true); }),
            "KCException: Couldn't load key/certificate. Received: Error 1");
  EXPECT_EQ(thrownBy([&] { provider.getCertificate(true); }),
            "KCException: Couldn't load key/certificate. Received: Error 2");
  EXPECT_EQ(thrownBy([&] { provider.getPublicKey(false); }),
            "KCException: Couldn't load key/certificate. Received: Error 2");
  service.serve("new key", otherIdentity().certificate);
  EXPECT_EQ(provider.getPrivateKey(false), "new key");
  EXPECT_EQ(provider.getPublicKey(false), publicKeyOf(otherIdentity().certificate));
}

TEST_F(OrvexKCProviderTest, FailureForTheCertificateLeavesTheKey) {
  service.serve("the key", "Error");
  provider.getPrivateKey(false);
  EXPECT_EQ(thrownBy([&] { provider.getCertificate(true); }),
            "KCException: Couldn't load key/certificate. Received: Error");
  EXPECT_EQ(provider.getPrivateKey(false), "the key");
  EXPECT_EQ(service.connectionCount(), 2U);
}

TEST_F(OrvexKCProviderTest, PortIsA16BitNumber) {
  service.serve("the key", "the certificate");
  EXPECT_EQ(OrvexKCProvider(service.port() + 0x10000).getPrivateKey(false), "the key");
}

TEST_F(OrvexKCProviderTest, CloudUrlIsNotSupported) {
  EXPECT_FALSE(provider.isCloudUrlSupported());
  EXPECT_EQ(thrownBy([&] { provider.getCloudUrl(false); }),
            "KCException: Cloud URL retrieval is not supported by the certificate provider");
}

TEST_F(OrvexKCProviderTest, ReplyThatBeginsWithErrorIsThrown) {
  const struct {
    std::string reply;
    const char* thrown;
  } rows[] = {
      {"Error", "KCException: Couldn't load key/certificate. Received: Error"},
      {"Error: no key %s %n\n", "KCException: Couldn't load key/certificate. Received: Error: no key %s %n\n"},
      {"Errors", "KCException: Couldn't load key/certificate. Received: Errors"},
      {std::string("Error\0tail", 10), "KCException: Couldn't load key/certificate. Received: Error"},
  };
  for (const auto& row : rows) {
    service.answer({send(frame(row.reply))});
    EXPECT_EQ(thrownBy([&] { provider.getPrivateKey(false); }), row.thrown);
    EXPECT_EQ(thrownBy([&] { provider.getCertificate(false); }), row.thrown);
  }
  EXPECT_THAT(service.requests(), SizeIs(8)) << "nothing may be cached";
}

TEST_F(OrvexKCProviderTest, ReplyWithErrorElsewhereIsTaken) {
  for (const char* reply : {"xError", " Error", "error", "ERROR", "Erro", "E", "-----BEGIN Error-----"}) {
    service.answer({send(frame(reply))});
    EXPECT_EQ(provider.getPrivateKey(true), reply);
    EXPECT_EQ(provider.getCertificate(true), reply);
  }
}

TEST_F(OrvexKCProviderTest, ReplyEndsAtItsFirstNul) {
  const struct {
    std::string reply;
    const char* text;
  } rows[] = {
      {std::string("key\0", 4), "key"},
      {std::string("key\0more\0", 9), "key"},
      {std::string("\0Error", 6), ""},
      {std::string(1, '\0'), ""},
  };
  for (const auto& row : rows) {
    service.answer({send(frame(row.reply))});
    const LogCapture log;
    EXPECT_EQ(provider.getPrivateKey(true), row.text);
    EXPECT_EQ(log.lines().back(), "kcProviders/OrvexKCProvider: Total bytes read " + std::to_string(row.reply.size()));
  }
}

TEST_F(OrvexKCProviderTest, EmptyReplyIsNoFailureAndNotCached) {
  service.answer({send(frame(""))});
  const LogCapture log;
  EXPECT_EQ(provider.getPrivateKey(false), "");
  EXPECT_EQ(log.lines().back(), "kcProviders/OrvexKCProvider: Total bytes read 0");
  EXPECT_EQ(provider.getPrivateKey(false), "");
  EXPECT_EQ(service.connectionCount(), 2U);
}

TEST_F(OrvexKCProviderTest, RepliesOfEveryAcceptedLength) {
  for (const std::size_t length : {1UL, 250UL, 251UL, 252UL, 255UL, 256UL, 4096UL, 65536UL, 1024UL * 1024UL}) {
    const std::string key(length, 'k');
    service.answer({send(frame(key))});
    EXPECT_TRUE(provider.getPrivateKey(true) == key) << length;
  }
}

TEST_F(OrvexKCProviderTest, BytesBeyondTheAnnouncedOnesAreIgnored) {
  const struct {
    const char* name;
    Script script;
  } rows[] = {
      {"in one segment", {send(frame("key") + "surplus")}},
      {"a whole first read", {send(frame("key") + std::string(1000, 's'))}},
      {"later", {send(frame("key")), pause(std::chrono::milliseconds(5)), send("surplus")}},
      {"one by one", {drip(frame("key") + "surplus")}},
  };
  for (const auto& row : rows) {
    service.answer(row.script);
    const LogCapture log;
    EXPECT_EQ(provider.getPrivateKey(true), "key") << row.name;
    EXPECT_TRUE(log.contains("kcProviders/OrvexKCProvider: Total bytes read 3")) << row.name;
  }
}

TEST_F(OrvexKCProviderTest, ReplyInSingleBytes) {
  const std::string key(300, 'k');
  service.answer({drip(frame(key))});
  EXPECT_EQ(provider.getPrivateKey(false), key);
}

TEST_F(OrvexKCProviderTest, ReplySplitAtEveryPosition) {
  const std::string reply = frame("a key");
  for (std::size_t first = 1; first < reply.size(); ++first) {
    service.answer({send(reply.substr(0, first)), pause(std::chrono::milliseconds(5)), send(reply.substr(first))});
    EXPECT_EQ(provider.getPrivateKey(true), "a key") << first;
  }
}

TEST_F(OrvexKCProviderTest, ReplyMayTakeItsTime) {
  const auto moment = std::chrono::milliseconds(100);
  service.answer({pause(moment), send(lengthPrefix(5)), pause(moment), send("a key"), pause(moment)});
  EXPECT_EQ(provider.getPrivateKey(false), "a key");
}

}  // namespace
}  // namespace test
