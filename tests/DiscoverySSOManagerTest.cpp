// The manager's states and requests, with a real cloud behind them. The waits between attempts belong to the run loop.

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <typeinfo>
#include <vector>

#include "DiscoverySSOManager.h"
#include "runLoop/Device.h"
#include "support/DeadPorts.h"
#include "support/KeyService.h"
#include "support/LogCapture.h"
#include "support/LoggedAt.h"
#include "support/OpenDescriptors.h"
#include "support/Thrown.h"

namespace test {
namespace {

using namespace std::chrono_literals;
using velo::ssoService::DiscoverySSOManager;
using Lines = std::vector<std::string>;

class DiscoverySSOManagerTest : public ::testing::Test {
 protected:
  /// Every request is refused with this reason at its end, at once, and logs nothing.
  static void expectRefusals(DiscoverySSOManager& manager, const std::string& reason) {
    const LogCapture log;
    EXPECT_EQ(thrownBy([&] { manager.getToken("x"); }), "SsoException: Cloud discovery failed. " + reason);
    EXPECT_EQ(thrownBy([&] { manager.getDiscoveryData(); }), "SsoException: Cloud discovery failed. " + reason);
    EXPECT_EQ(thrownBy([&] { manager.getCertificateId(); }),
              "SsoException: Cloud discovery failed. System is not initialized" + reason);
    EXPECT_FALSE(manager.reset());
    EXPECT_EQ(log.lines(), Lines());
  }

  void expectAnswers(DiscoverySSOManager& manager) const {
    EXPECT_EQ(manager.getToken("x"), "a token");
    EXPECT_EQ(manager.getDiscoveryData(), device.payload);
    EXPECT_EQ(manager.getCertificateId(), "device-0001");
  }

  /// The manager's own lines of an action.
  static Lines managerLines(const std::function<void()>& action) {
    Lines own;
    for (const std::string& line : linesOf(action, LOG_LEVEL_VERBOSE)) {
      if (line.rfind("DiscoverySSOManager: ", 0) == 0) {
        own.push_back(line);
      }
    }
    return own;
  }

  std::unique_ptr<DiscoverySSOManager> readyManager() const {
    auto manager = std::make_unique<DiscoverySSOManager>(device.configuration(), "");
    manager->initialize();
    return manager;
  }

  Device device;
};

TEST_F(DiscoverySSOManagerTest, RequestsAreRefusedBeforeTheFirstInitialisation) {
  DiscoverySSOManager manager(device.configuration(), "");
  expectRefusals(manager, "");
  EXPECT_EQ(device.cloud.requestLines(), Lines());
}

TEST_F(DiscoverySSOManagerTest, RequestsAreRefusedWithoutWaitingDuringTheFirstDiscovery) {
  DiscoverySSOManager manager(device.configuration(), "");
  HeldReply held(device.cloud, Device::DISCOVERY, device.goodDiscovery());
  std::thread initializer([&] { manager.initialize(); });
  EXPECT_TRUE(held.awaitRequest());
  expectRefusals(manager, "");
  held.letGo();
  initializer.join();
  expectAnswers(manager);
}

TEST_F(DiscoverySSOManagerTest, ReadyManagerAnswers) {
  const auto manager = readyManager();
  expectAnswers(*manager);
  EXPECT_EQ(device.cloud.requestLines(), (Lines{"GET /discovery/device-0001", "GET /openid", "POST /token"}));
}

TEST_F(DiscoverySSOManagerTest, InitialisationLogsItsSteps) {
  DiscoverySSOManager manager(device.configuration(), "");
  // Nothing is said about a URL of the provider, which has none.
  EXPECT_EQ(managerLines([&] { manager.initialize(); }),
            (Lines{"DiscoverySSOManager: Configuring SSO Manager",
                   "DiscoverySSOManager: Cloud config successfully retrieved. Creating SsoClient"}));
}

TEST_F(DiscoverySSOManagerTest, InitialisationOfAReadyManagerDoesNothing) {
  const auto manager = readyManager();
  EXPECT_EQ(linesOf([&] { manager->initialize(); }, LOG_LEVEL_VERBOSE), Lines());
  EXPECT_EQ(device.cloud.requests().size(), 1U);
  expectAnswers(*manager);
}

TEST_F(DiscoverySSOManagerTest, InitialisationWithoutAProviderDoesNothing) {
  DiscoverySSOManager manager(device.directory.file("missing.json"), "");
  EXPECT_EQ(linesOf([&] { manager.initialize(); }, LOG_LEVEL_VERBOSE), Lines());
  expectRefusals(manager, "");
}

TEST_F(DiscoverySSOManagerTest, ReasonOfTheLastFailureStandsBehindTheRefusals) {
  const std::string cloudFailed = "Couldn't retrieve configuration from the cloud: ";
  const std::string notCached = " Cloud config caching not enabled";
  const ClosedPort closed;
  const std::string deadUrl = "http://127.0.0.1:" + std::to_string(closed.port()) + "/";
  const std::string notJson = "Error processing JSON returned by Discovery Request.Input is not a valid object";
  struct {
    const char* name;
    std::function<void()> spoil;
    std::string reason;
  } const table[] = {
      {"no certificate", [&] { device.directory.write("device.crt", ""); }, " is empty"},
      {"no URL", [&] { device.configure(R"({"url":"","cache_enabled":false})"); },
       "Cannot create Discovery: endpoint URL not specified"},
      {"cloud that is down", [&] { device.configure(R"({"url":")" + deadUrl + R"(","cache_enabled":false})"); },
       cloudFailed + "Couldn't retrieve discovery data from " + deadUrl +
           " Curl failed. Error: " + curl_easy_strerror(CURLE_COULDNT_CONNECT) + notCached},
      {"unknown device",
       [&] {
         device.cloud.on(Device::DISCOVERY, {404, "", {}});
       },
       cloudFailed + "Couldn't retrieve discovery data from " + device.discoveryUrl() + ". Curl returned: 404" +
           notCached},
      {"reply that is no JSON",
       [&] {
         device.cloud.on(Device::DISCOVERY, {200, "text", {}});
       },
       cloudFailed + notJson + notCached},
      {"no OpenID configuration",
       [&] {
         device.cloud.on(Device::DISCOVERY, {200, discoveryReply("{}", deviceIdentity().certificate), {}});
       },
       cloudFailed + "config.endpoints.veloIdConfiguration not found" + notCached},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    device.installCertificate();
    device.configure(R"({"url":")" + device.discoveryUrl() + R"(","cache_enabled":false})");
    device.cloud.on(Device::DISCOVERY, device.goodDiscovery());
    row.spoil();
    DiscoverySSOManager manager(device.configuration(), "");
    EXPECT_EQ(managerLines([&] { manager.initialize(); }), Lines{"DiscoverySSOManager: Configuring SSO Manager"});
    expectRefusals(manager, row.reason);
  }
}

TEST_F(DiscoverySSOManagerTest, ReasonStaysDuringTheNextAttemptAndGoesWithItsSuccess) {
  device.cloud.on(Device::DISCOVERY, {404, "", {}});
  DiscoverySSOManager manager(device.configuration(), "");
  manager.initialize();
  const std::string reason = "Couldn't retrieve configuration from the cloud: Couldn't retrieve discovery data from " +
                             device.discoveryUrl() + ". Curl returned: 404 Cloud config caching not enabled";
  expectRefusals(manager, reason);

  HeldReply held(device.cloud, Device::DISCOVERY, device.goodDiscovery());
  std::thread initializer([&] { manager.initialize(); });
  EXPECT_TRUE(held.awaitRequest());
  expectRefusals(manager, reason);
  held.letGo();
  initializer.join();
  expectAnswers(manager);

  EXPECT_TRUE(manager.reset());
  expectRefusals(manager, "");
}

TEST_F(DiscoverySSOManagerTest, BackupFileServesWhereTheCloudDoesNot) {
  device.configure(R"({"url":")" + device.discoveryUrl() + R"(","cache_enabled":true,"cache_folder":")" +
                   device.directory.path() + R"("})");
  readyManager();
  device.cloud.on(Device::DISCOVERY, {503, "", {}});
  expectAnswers(*readyManager());
}

TEST_F(DiscoverySSOManagerTest, KeyServiceServesInThePlaceOfFiles) {
  KeyService keys;
  keys.serve(deviceIdentity().privateKey, deviceIdentity().certificate);
  device.configure(R"({"url":")" + device.discoveryUrl() + R"(","cache_enabled":false})",
                   R"({"type":"Orvex","port":)" + std::to_string(keys.port()) + "}");
  expectAnswers(*readyManager());
  EXPECT_EQ(keys.requests(), (Lines{"certificate", "privatekey"}));
}

TEST_F(DiscoverySSOManagerTest, ResetOfAReadyManagerIsLoggedAndAnsweredOnce) {
  const auto manager = readyManager();
  EXPECT_EQ(linesOf([&] { EXPECT_TRUE(manager->reset()); }, LOG_LEVEL_VERBOSE),
            Lines{"DiscoverySSOManager: Reseting SSO Manager"});
  expectRefusals(*manager, "");
}

TEST_F(DiscoverySSOManagerTest, InitialisationAfterAResetStartsFromTheBeginning) {
  const auto manager = readyManager();
  expectAnswers(*manager);
  EXPECT_TRUE(manager->reset());
  manager->initialize();
  expectAnswers(*manager);
  EXPECT_EQ(device.cloud.requestLines(), (Lines{"GET /discovery/device-0001", "GET /openid", "POST /token",
                                                "GET /discovery/device-0001", "GET /openid", "POST /token"}));
}

TEST_F(DiscoverySSOManagerTest, FailureBehindARequestLosesItsTextAndChangesNothing) {
  const auto manager = readyManager();
  device.cloud.on("/openid", {503, "", {}});
  try {
    manager->getToken("x");
    ADD_FAILURE() << "no exception";
  } catch (const std::exception& thrown) {
    EXPECT_TRUE(typeid(thrown) == typeid(std::exception)) << typeid(thrown).name();
    EXPECT_STREQ(thrown.what(), std::exception().what());
  }
  EXPECT_EQ(manager->getCertificateId(), "device-0001");
  EXPECT_EQ(manager->getDiscoveryData(), device.payload);
  device.cloud.on("/openid", {200, R"({"token_endpoint":")" + device.cloud.url("/token") + R"("})", {}});
  expectAnswers(*manager);
}

TEST_F(DiscoverySSOManagerTest, RequestsWaitForTheOneThatIsBeingServed) {
  const auto manager = readyManager();
  HeldReply held(device.cloud, "/token", {200, R"({"access_token":"late","expires_in":3600})", {}});
  auto token = std::async(std::launch::async, [&] { return manager->getToken("x"); });
  EXPECT_TRUE(held.awaitRequest());
  auto id = std::async(std::launch::async, [&] { return manager->getCertificateId(); });
  auto data = std::async(std::launch::async, [&] { return manager->getDiscoveryData(); });
  auto sameToken = std::async(std::launch::async, [&] { return manager->getToken("x"); });
  EXPECT_EQ(id.wait_for(20ms), std::future_status::timeout);
  EXPECT_EQ(data.wait_for(0ms), std::future_status::timeout);
  EXPECT_EQ(sameToken.wait_for(0ms), std::future_status::timeout);
  held.letGo();
  EXPECT_EQ(token.get(), "late");
  EXPECT_EQ(id.get(), "device-0001");
  EXPECT_EQ(data.get(), device.payload);
  EXPECT_EQ(sameToken.get(), "late");
}

TEST_F(DiscoverySSOManagerTest, ResetWaitsForTheRequestThatIsBeingServed) {
  const auto manager = readyManager();
  HeldReply held(device.cloud, "/token", {200, R"({"access_token":"late","expires_in":3600})", {}});
  auto token = std::async(std::launch::async, [&] { return manager->getToken("x"); });
  EXPECT_TRUE(held.awaitRequest());
  auto reset = std::async(std::launch::async, [&] { return manager->reset(); });
  EXPECT_EQ(reset.wait_for(20ms), std::future_status::timeout);
  held.letGo();
  EXPECT_EQ(token.get(), "late");
  EXPECT_TRUE(reset.get());
  expectRefusals(*manager, "");
}

TEST_F(DiscoverySSOManagerTest, RequestsFromManyThreadsSurviveResetsAndInitialisations) {
  log_init(nullptr, LOG_LEVEL_OFF, 0);
  const auto manager = readyManager();
  std::atomic<bool> isOver{false};
  std::atomic<int> answers{0};
  const auto ask = [&](int kind) {
    while (!isOver) {
      try {
        const std::string answer = kind == 0   ? manager->getToken("x")
                                   : kind == 1 ? manager->getDiscoveryData()
                                               : manager->getCertificateId();
        EXPECT_EQ(answer, kind == 0 ? "a token" : kind == 1 ? device.payload : "device-0001");
        ++answers;
      } catch (const std::exception& refusal) {
        EXPECT_STREQ(refusal.what(),
                     kind == 2 ? "Cloud discovery failed. System is not initialized" : "Cloud discovery failed. ");
      }
      std::this_thread::yield();
    }
  };
  std::vector<std::thread> clients;
  for (int kind = 0; kind < 3; ++kind) {
    clients.emplace_back(ask, kind);
  }
  int resets = 0;
  for (int round = 0; round < 20; ++round) {
    const int before = answers;
    EXPECT_TRUE(await([&] { return answers > before; }));
    resets += manager->reset() ? 1 : 0;
    manager->initialize();
  }
  isOver = true;
  for (std::thread& client : clients) {
    client.join();
  }
  EXPECT_EQ(resets, 20);
  expectAnswers(*manager);
}

TEST_F(DiscoverySSOManagerTest, DestructionReleasesWhatWasBuilt) {
  readyManager();  // what libraries keep for themselves is there from now on
  const OpenDescriptors descriptors;
  {
    const auto manager = readyManager();
    expectAnswers(*manager);
    EXPECT_TRUE(manager->reset());
    manager->initialize();
    expectAnswers(*manager);
  }
  EXPECT_TRUE(descriptors.areAsBefore());
}

/// Managers that are shut down are never destroyed: a request may still be in them.
class ManagerShutDownTest : public DiscoverySSOManagerTest {
 protected:
  DiscoverySSOManager& keptManager() const {
    static auto& kept = *new std::vector<std::unique_ptr<DiscoverySSOManager>>;
    kept.push_back(readyManager());
    return *kept.back();
  }
};

TEST_F(ManagerShutDownTest, LateRequestWaitsForTheEndOfTheProcess) {
  DiscoverySSOManager& manager = keptManager();
  manager.shutDown();
  auto answered = std::make_shared<std::promise<void>>();
  auto answer = answered->get_future();
  std::thread([&manager, answered] {
    manager.getCertificateId();
    answered->set_value();
  }).detach();
  EXPECT_EQ(answer.wait_for(50ms), std::future_status::timeout);
}

TEST_F(ManagerShutDownTest, RequestInFlightIsLeftAlone) {
  DiscoverySSOManager& manager = keptManager();
  HeldReply held(device.cloud, "/token", {200, R"({"access_token":"late","expires_in":3600})", {}});
  auto token = std::async(std::launch::async, [&] { return manager.getToken("x"); });
  EXPECT_TRUE(held.awaitRequest());
  manager.shutDown();
  EXPECT_EQ(token.wait_for(0ms), std::future_status::timeout);
  held.letGo();
  EXPECT_EQ(token.get(), "late");
}

TEST_F(DiscoverySSOManagerTest, EachMessageIsWrittenFromItsLevelOn) {
  for (const char* message :
       {"Configuring SSO Manager", "Cloud config successfully retrieved. Creating SsoClient", "Reseting SSO Manager"}) {
    EXPECT_TRUE(
        isLoggedAt(LOG_LEVEL_INFO, std::string("DiscoverySSOManager: ") + message, [&] { readyManager()->reset(); }));
  }
}

}  // namespace
}  // namespace test
