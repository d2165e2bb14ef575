// What the run loop does in each state, with stop signals and waits that are scripted.

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
#include "support/LogCapture.h"
#include "support/LoggedAt.h"
#include "support/Thrown.h"

namespace test {
namespace {

using namespace std::chrono_literals;
using velo::ssoService::DiscoverySSOManager;

const std::string ATTEMPT = "DiscoverySSOManager: Configuring SSO Manager";

std::string retryLine(const std::string& reason) {
  return "DiscoverySSOManager: Couldn't initialize the SSO manager: " + reason + ". Will try again in 30 seconds";
}

/// Initialisations fail before the network is touched as long as the device has no certificate.
class RunLoopTest : public ::testing::Test {
 protected:
  RunLoopTest() { std::filesystem::remove(device.certificatePath()); }

  std::string missingCertificate() const { return "Couldn't open key/certificate file " + device.certificatePath(); }

  std::size_t attempts() const {
    const std::vector<std::string> lines = log.lines();
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), ATTEMPT));
  }

  /// The attempts and the messages of the loop, in their order.
  std::vector<std::string> loopLines() const {
    std::vector<std::string> lines = log.lines();
    const auto isOther = [](const std::string& line) {
      return line != ATTEMPT && line.rfind("DiscoverySSOManager: Couldn't initialize", 0) != 0;
    };
    lines.erase(std::remove_if(lines.begin(), lines.end(), isOther), lines.end());
    return lines;
  }

  Device device;
  LogCapture log;
  StopScript script;
};

TEST_F(RunLoopTest, ConfiguredManagerIsInitialisedAtOnceThenIdlesInOneSecondWaits) {
  device.installCertificate();
  DiscoverySSOManager manager(device.configuration(), "");
  script.onWait = [&](std::size_t before) {
    EXPECT_EQ(manager.getCertificateId(), "device-0001");
    if (before == 2) {
      requestStop();
    }
  };
  manager.run();
  EXPECT_EQ(script.waits, (Waits{1s, 1s, 1s}));
  EXPECT_EQ(loopLines(), std::vector<std::string>{ATTEMPT});
}

TEST_F(RunLoopTest, FailedInitialisationIsTriedAgainEveryThirtySecondsForEver) {
  DiscoverySSOManager manager(device.configuration(), "");
  script.onWait = [&](std::size_t before) {
    if (before == 9) {
      requestStop();
    }
  };
  manager.run();
  EXPECT_EQ(script.waits, Waits(10, 30s));
  std::vector<std::string> expected{ATTEMPT};
  for (int round = 0; round < 10; ++round) {
    expected.push_back(retryLine(missingCertificate()));
    expected.push_back(ATTEMPT);
  }
  EXPECT_EQ(loopLines(), expected);
}

TEST_F(RunLoopTest, RetryMessageTellsTheLatestReason) {
  DiscoverySSOManager manager(device.configuration(), "");
  script.onWait = [&](std::size_t before) {
    switch (before) {
      case 0:
        device.directory.write("device.crt", "");
        break;
      case 1:
        device.installCertificate();
        device.cloud.on(Device::DISCOVERY, {503, "", {}});
        break;
      default:
        requestStop();
    }
  };
  manager.run();
  EXPECT_EQ(loopLines(),
            (std::vector<std::string>{
                ATTEMPT, retryLine(missingCertificate()), ATTEMPT, retryLine(" is empty"), ATTEMPT,
                retryLine("Couldn't retrieve configuration from the cloud: Couldn't retrieve discovery data from " +
                          device.discoveryUrl() + ". Curl returned: 503 Cloud config caching not enabled"),
                ATTEMPT}));
}

TEST_F(RunLoopTest, RetryThatSucceedsMakesTheManagerReady) {
  DiscoverySSOManager manager(device.configuration(), "");
  script.onWait = [&](std::size_t before) {
    if (before == 0) {
      EXPECT_EQ(thrownBy([&] { manager.getToken("x"); }),
                "SsoException: Cloud discovery failed. " + missingCertificate());
      device.installCertificate();
    } else {
      EXPECT_EQ(manager.getCertificateId(), "device-0001");
      requestStop();
    }
  };
  manager.run();
  EXPECT_EQ(script.waits, (Waits{30s, 1s}));
}

TEST_F(RunLoopTest, StopDuringTheRetryWaitIsSeenAfterOneMoreAttempt) {
  DiscoverySSOManager manager(device.configuration(), "");
  script.onWait = [](std::size_t) { requestStop(); };
  manager.run();
  EXPECT_EQ(script.waits, Waits{30s});
  EXPECT_EQ(loopLines(), (std::vector<std::string>{ATTEMPT, retryLine(missingCertificate()), ATTEMPT}));
}

TEST_F(RunLoopTest, StopWhileReadyEndsTheLoopAfterThatWait) {
  device.installCertificate();
  DiscoverySSOManager manager(device.configuration(), "");
  script.onWait = [](std::size_t) { requestStop(); };
  manager.run();
  EXPECT_EQ(script.waits, Waits{1s});
}

TEST_F(RunLoopTest, StopBeforeTheFirstPassInitialisesNothing) {
  device.installCertificate();
  DiscoverySSOManager manager(device.configuration(), "");
  requestStop();
  manager.run();
  EXPECT_EQ(attempts(), 0U);
  EXPECT_EQ(script.waits, Waits());
}

TEST_F(RunLoopTest, StopDuringAnInitialisationIsSeenInTheNextPass) {
  device.installCertificate();
  device.cloud.on(Device::DISCOVERY, [](const HttpRequest&) {
    requestStop();
    return HttpReply{503, "", {}};
  });
  DiscoverySSOManager manager(device.configuration(), "");
  manager.run();
  EXPECT_EQ(script.waits, Waits());
  EXPECT_EQ(loopLines(), std::vector<std::string>{ATTEMPT});
}

TEST_F(RunLoopTest, StopThatIsPendingIsDeliveredAtTheTopOfAPass) {
  device.installCertificate();
  DiscoverySSOManager manager(device.configuration(), "");
  script.onDelivery = [](std::size_t before) {
    if (before == 2) {
      requestStop();
    }
  };
  manager.run();
  EXPECT_EQ(script.waits, Waits{1s});
  EXPECT_EQ(attempts(), 1U);
}

TEST_F(RunLoopTest, ResetIsAnsweredByAnInitialisationAtOnce) {
  device.installCertificate();
  DiscoverySSOManager manager(device.configuration(), "");
  script.onWait = [&](std::size_t before) {
    if (before == 0) {
      EXPECT_TRUE(manager.reset());
    } else {
      EXPECT_EQ(manager.getCertificateId(), "device-0001");
      requestStop();
    }
  };
  manager.run();
  EXPECT_EQ(script.waits, (Waits{1s, 1s}));
  EXPECT_EQ(attempts(), 2U);
}

TEST_F(RunLoopTest, StopAfterAResetIsSeenBeforeTheInitialisation) {
  device.installCertificate();
  DiscoverySSOManager manager(device.configuration(), "");
  script.onWait = [&](std::size_t) {
    EXPECT_TRUE(manager.reset());
    requestStop();
  };
  manager.run();
  EXPECT_EQ(attempts(), 1U);
}

TEST_F(RunLoopTest, RunningInitialisationIsWaitedForInOneSecondWaits) {
  device.installCertificate();
  DiscoverySSOManager manager(device.configuration(), "");
  HeldReply held(device.cloud, Device::DISCOVERY, {503, "", {}});
  std::thread initializer([&] { manager.initialize(); });
  EXPECT_TRUE(held.awaitRequest());
  script.onWait = [&](std::size_t before) {
    if (before == 2) {
      held.letGo();
      initializer.join();
      requestStop();
    }
  };
  manager.run();
  EXPECT_EQ(script.waits, (Waits{1s, 1s, 1s}));
  EXPECT_EQ(attempts(), 1U);
}

TEST_F(RunLoopTest, StopIsSeenBeforeARejectedConfiguration) {
  device.configure(R"({"url":"u","cache_enabled":false})", "", "");
  DiscoverySSOManager manager(device.configuration(), "");
  requestStop();
  manager.run();
  EXPECT_EQ(script.waits, Waits());
}

TEST_F(RunLoopTest, RetryMessageIsAnError) {
  EXPECT_TRUE(isLoggedAt(LOG_LEVEL_ERROR, retryLine(missingCertificate()), [&] {
    StopScript once;
    once.onWait = [](std::size_t) { requestStop(); };
    DiscoverySSOManager manager(device.configuration(), "");
    manager.run();
  }));
}

}  // namespace
}  // namespace test
