// A reload: what is read again, what is kept when that fails, and when the run loop does it.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "DiscoverySSOManager.h"
#include "runLoop/Device.h"
#include "runLoop/ScriptedStops.h"
#include "support/DeadPorts.h"
#include "support/KeyService.h"
#include "support/LogCapture.h"
#include "support/LoggedAt.h"
#include "support/Thrown.h"

namespace test {
namespace {

using namespace std::chrono_literals;
using velo::ssoService::DiscoverySSOManager;

const std::string READING = "DiscoverySSOManager: Reading the key and the certificate again";
const std::string OTHER_PATH = "/discovery/device-0002";

std::string readLine(const std::string& id) {
  return "DiscoverySSOManager: The key and the certificate of " + id + " are read. Starting over with them";
}

std::string failureLine(const std::string& reason) {
  return "DiscoverySSOManager: Couldn't read the key and the certificate again: " + reason +
         ". The old ones stay in use";
}

/// The same public numbers; a character of the private exponent and of a prime are other ones.
std::string withDamagedNumbers(std::string pem) {
  constexpr std::size_t LINE = 64;
  const std::size_t body = pem.find('\n') + 1;
  for (const std::size_t character : {560U, 826U}) {
    char& damaged = pem.at(body + character + character / LINE);
    damaged = damaged == 'A' ? 'B' : 'A';
  }
  return pem;
}

class ReloadTest : public ::testing::Test {
 protected:
  ReloadTest() { device.cloud.on(OTHER_PATH, {200, discoveryReply(device.payload, otherIdentity().certificate), {}}); }

  void writeKey(const std::string& pem) { device.directory.write("device.key", pem); }
  void writeCertificate(const std::string& pem) { device.directory.write("device.crt", pem); }

  void installOther() {
    writeKey(otherIdentity().privateKey);
    writeCertificate(otherIdentity().certificate);
  }

  /// The first wait is ended by a reload of the other pair; by the second one it is to be in use.
  void reloadOtherInFirstWait(DiscoverySSOManager& manager) {
    script.onWait = [&](std::size_t before) {
      if (before == 0) {
        installOther();
        requestReload();
      } else {
        EXPECT_EQ(manager.getCertificateId(), "device-0002");
        requestStop();
      }
    };
  }

  Device device;
  LogCapture log;
  StopScript script;
};

TEST_F(ReloadTest, NewKeyAndCertificateAreUsed) {
  DiscoverySSOManager manager(device.configuration(), "");
  manager.initialize();
  EXPECT_EQ(manager.getCertificateId(), "device-0001");
  installOther();
  manager.reload();
  EXPECT_TRUE(log.contains(READING));
  EXPECT_TRUE(log.contains(readLine("device-0002")));
  EXPECT_EQ(thrownBy([&] { manager.getCertificateId(); }),
            "SsoException: Cloud discovery failed. System is not initialized");
  manager.initialize();
  EXPECT_EQ(manager.getCertificateId(), "device-0002");
  EXPECT_EQ(manager.getDiscoveryData(), device.payload);
  EXPECT_EQ(manager.getToken("a scope"), "a token");
}

TEST_F(ReloadTest, SameKeyAndCertificateStartOverToo) {
  DiscoverySSOManager manager(device.configuration(), "");
  manager.initialize();
  manager.reload();
  EXPECT_FALSE(manager.reset()) << "one is under way";
  manager.initialize();
  EXPECT_EQ(manager.getCertificateId(), "device-0001");
}

TEST_F(ReloadTest, FailureKeepsEverything) {
  DiscoverySSOManager manager(device.configuration(), "");
  manager.initialize();
  EXPECT_EQ(manager.getToken("a scope"), "a token");
  const std::string noKey = "The private key is no RSA key of 2048 bits that can be read";
  const std::string noId = "Cannot retrieve certificate id. Not found";
  const std::string key = otherIdentity().privateKey;
  const std::string certificate = otherIdentity().certificate;
  struct {
    const char* name;
    std::string key;
    std::string certificate;
    std::string reason;
  } const table[] = {
      {"empty key", "", certificate, " is empty"},
      {"no key", "garbage", certificate, noKey},
      {"half a key", key.substr(0, key.size() / 2), certificate, noKey},
      {"key of a curve", curveIdentity().privateKey, certificate, noKey},
      {"small key", smallIdentity().privateKey, smallIdentity().certificate, noKey},
      {"key of another certificate", key, deviceIdentity().certificate,
       "The private key does not belong to the certificate"},
      {"key with damaged numbers", withDamagedNumbers(key), certificate,
       "The private key does not belong to the certificate"},
      {"encrypted key", encryptedPrivateKey("secret"), certificate, noKey},
      {"certificate in the key's place", certificate, certificate, noKey},
      {"empty certificate", key, "", " is empty"},
      {"no certificate", key, "garbage", noId},
      {"certificate without a name", key, certificateWithSubject({}), noId},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    writeKey(row.key);
    writeCertificate(row.certificate);
    const LogCapture lines(LOG_LEVEL_ERROR);
    manager.reload();
    EXPECT_EQ(lines.lines(), std::vector<std::string>{failureLine(row.reason)});
    EXPECT_EQ(manager.getCertificateId(), "device-0001");
    device.cloud.on("/token", {500, "", {}});
    EXPECT_EQ(manager.getToken("a scope"), "a token") << "the cached tokens stay";
  }
}

TEST_F(ReloadTest, MissingFileIsAFailure) {
  DiscoverySSOManager manager(device.configuration(), "");
  std::filesystem::remove(device.certificatePath());
  manager.reload();
  EXPECT_TRUE(log.contains(failureLine("Couldn't open key/certificate file " + device.certificatePath())));
}

TEST_F(ReloadTest, MessagesHaveTheirLevels) {
  EXPECT_TRUE(isLoggedAt(LOG_LEVEL_INFO, READING, [&] { DiscoverySSOManager(device.configuration(), "").reload(); }));
  EXPECT_TRUE(isLoggedAt(LOG_LEVEL_INFO, readLine("device-0001"),
                         [&] { DiscoverySSOManager(device.configuration(), "").reload(); }));
  writeKey("");
  EXPECT_TRUE(isLoggedAt(LOG_LEVEL_ERROR, failureLine(" is empty"),
                         [&] { DiscoverySSOManager(device.configuration(), "").reload(); }));
}

TEST_F(ReloadTest, KeyServiceIsAskedAgain) {
  KeyService service;
  service.serve(deviceIdentity().privateKey, deviceIdentity().certificate);
  device.configure(R"({"url":")" + device.discoveryUrl() + R"(","cache_enabled":false})",
                   R"({"type":"Orvex","port":)" + std::to_string(service.port()) + "}");
  DiscoverySSOManager manager(device.configuration(), "");
  manager.initialize();
  EXPECT_EQ(manager.getCertificateId(), "device-0001");
  service.serve("Error 17", otherIdentity().certificate);
  manager.reload();
  EXPECT_TRUE(log.contains(failureLine("Couldn't load key/certificate. Received: Error 17")));
  EXPECT_EQ(manager.getCertificateId(), "device-0001");
  service.serve(otherIdentity().privateKey, otherIdentity().certificate);
  manager.reload();
  manager.initialize();
  EXPECT_EQ(manager.getCertificateId(), "device-0002");
}

TEST_F(ReloadTest, RequestUnderWayIsAnsweredFirst) {
  DiscoverySSOManager manager(device.configuration(), "");
  manager.initialize();
  HeldReply held(device.cloud, "/token", {200, R"({"access_token":"late","expires_in":3600})", {}});
  std::string token;
  std::thread client([&] { token = manager.getToken("a scope"); });
  EXPECT_TRUE(held.awaitRequest());
  std::thread reloading([&] { manager.reload(); });
  EXPECT_TRUE(await([&] { return log.contains(readLine("device-0001")); }));
  std::string refused;
  std::thread second([&] { refused = thrownBy([&] { manager.getToken("a scope"); }); });
  held.letGo();
  client.join();
  second.join();
  reloading.join();
  EXPECT_EQ(token, "late");
  EXPECT_EQ(refused, "SsoException: Cloud discovery failed. ");
}

TEST_F(ReloadTest, StopEndsTheWaitForARequestUnderWay) {
  DiscoverySSOManager manager(device.configuration(), "");
  manager.initialize();
  HeldReply held(device.cloud, "/token", {200, R"({"access_token":"late","expires_in":3600})", {}});
  std::thread client([&] { EXPECT_EQ(manager.getToken("a scope"), "late"); });
  EXPECT_TRUE(held.awaitRequest());
  installOther();
  requestStop();
  manager.reload();
  held.letGo();
  client.join();
}

TEST_F(ReloadTest, LoopReloadsAReadyManagerAndInitialisesItAtOnce) {
  DiscoverySSOManager manager(device.configuration(), "");
  reloadOtherInFirstWait(manager);
  manager.run();
  EXPECT_EQ(script.waits, (Waits{1s, 1s}));
}

TEST_F(ReloadTest, LoopReloadsBeforeTheNextAttempt) {
  writeKey("garbage");
  DiscoverySSOManager manager(device.configuration(), "");
  reloadOtherInFirstWait(manager);
  manager.run();
  EXPECT_EQ(script.waits, (Waits{30s, 1s})) << "the wait for the next attempt, then an idle one";
}

TEST_F(ReloadTest, LoopDoesNotWaitAfterAnAttemptThatFailedBeforeTheReload) {
  writeKey("garbage");
  DiscoverySSOManager manager(device.configuration(), "");
  device.cloud.on(Device::DISCOVERY, [&](const HttpRequest&) {
    installOther();
    requestReload();
    return HttpReply{503, "", {}};
  });
  script.onWait = [&](std::size_t) {
    EXPECT_EQ(manager.getCertificateId(), "device-0002");
    requestStop();
  };
  manager.run();
  EXPECT_EQ(script.waits, Waits{1s});
}

TEST_F(ReloadTest, LoopLooksForAStopBetweenTheReloadAndTheNextAttempt) {
  KeyService service;
  service.serve(deviceIdentity().privateKey, deviceIdentity().certificate);
  device.configure(R"({"url":")" + device.discoveryUrl() + R"(","cache_enabled":false})",
                   R"({"type":"Orvex","port":)" + std::to_string(service.port()) + "}");
  DiscoverySSOManager manager(device.configuration(), "");
  script.onWait = [&](std::size_t) {
    service.answer([](const std::string& request) {
      requestStop();
      return Script{send(frame(request == "privatekey" ? deviceIdentity().privateKey : deviceIdentity().certificate))};
    });
    requestReload();
  };
  manager.run();
  EXPECT_EQ(log.lines().back(), readLine("device-0001"));
}

TEST_F(ReloadTest, RejectedConfigurationStaysOne) {
  device.configure(R"({"url":"u","cache_enabled":false})", "", "");
  DiscoverySSOManager manager(device.configuration(), "");
  requestReload();
  EXPECT_EXIT(manager.run(), testing::ExitedWithCode(1), "");
}

TEST_F(ReloadTest, LoopReloadsOnceForARequest) {
  DiscoverySSOManager manager(device.configuration(), "");
  script.onWait = [&](std::size_t before) { before == 0 ? requestReload() : requestStop(); };
  manager.run();
  const std::vector<std::string> lines = log.lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), READING), 1);
}

TEST_F(ReloadTest, StopIsObeyedFirst) {
  DiscoverySSOManager manager(device.configuration(), "");
  script.onWait = [&](std::size_t) {
    requestReload();
    requestStop();
  };
  manager.run();
  EXPECT_FALSE(log.contains(READING));
}

}  // namespace
}  // namespace test
