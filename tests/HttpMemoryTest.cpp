// What the HTTP clients do when libcurl gets no memory.

#include <curl/curl.h>
#include <gmock/gmock.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "Discovery.h"
#include "SsoClient.h"
#include "logging/logging.h"
#include "support/EncryptedDiscovery.h"
#include "support/HttpServer.h"
#include "support/LogCapture.h"
#include "support/LoggedAt.h"
#include "support/OpenDescriptors.h"
#include "support/ScriptedProvider.h"
#include "support/Thrown.h"

namespace test {
namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::StartsWith;
using velo::ssoService::Discovery;
using velo::ssoService::SsoClient;

constexpr long UNLIMITED = -1;
std::atomic<long> allocationsLeft{UNLIMITED};

bool mayAllocate() {
  long left = allocationsLeft;
  while (left > 0 && !allocationsLeft.compare_exchange_weak(left, left - 1)) {
  }
  return left != 0;
}

void* limitedMalloc(std::size_t size) {
  return mayAllocate() ? std::malloc(size) : nullptr;
}

void* limitedRealloc(void* memory, std::size_t size) {
  return mayAllocate() ? std::realloc(memory, size) : nullptr;
}

void* limitedCalloc(std::size_t count, std::size_t size) {
  return mayAllocate() ? std::calloc(count, size) : nullptr;
}

char* limitedCopy(const char* text) {
  return mayAllocate() ? ::strdup(text) : nullptr;
}

/// Makes libcurl count its allocations. Only its first initialisation takes that, so what others began is ended before.
class LimitedCurl {
 public:
  LimitedCurl() {
    constexpr int MORE_THAN_ANYBODY_BEGINS = 1000;
    for (int count = 0; count < MORE_THAN_ANYBODY_BEGINS; ++count) {
      curl_global_cleanup();
    }
    curl_global_init_mem(CURL_GLOBAL_ALL, limitedMalloc, std::free, limitedRealloc, limitedCopy, limitedCalloc);
  }
  ~LimitedCurl() {
    allocationsLeft = UNLIMITED;
    curl_global_cleanup();
  }
  LimitedCurl(const LimitedCurl&) = delete;
  LimitedCurl& operator=(const LimitedCurl&) = delete;
};

class HttpMemoryTest : public testing::Test {
 protected:
  HttpMemoryTest() {
    server.on("/openid", HttpReply{200, R"({"token_endpoint":")" + server.url("/token") + R"("})"});
    server.on("/token", HttpReply{200, R"({"access_token":"a token","expires_in":3600})"});
    server.on("/device-0001", HttpReply{200, discoveryReply(discoveryPayload("x"), deviceIdentity().certificate)});
  }

  const LimitedCurl curl;
  HttpServer server;
  ScriptedProvider provider;
  Discovery discovery{server.url("/"), false, "", &provider};
  SsoClient client{server.url("/openid"), &provider};
};

TEST_F(HttpMemoryTest, DiscoveryWithoutAHandle) {
  const std::string reason = "Couldn't make discovery request. Curl initialization failed";
  allocationsLeft = 0;
  const LogCapture log;
  EXPECT_EQ(
      thrownBy([&] { discovery.retrieveConfiguration(); }),
      "SsoException: Couldn't retrieve configuration from the cloud: " + reason + " Cloud config caching not enabled");
  EXPECT_THAT(log.lines(), ElementsAre("Discovery: Making discovery request to " + server.url("/"),
                                       "Discovery: Curl initialization failed.",
                                       "Discovery: Couldn't retrieve configuration from the cloud: " + reason +
                                           ". Cloud config caching not enabled"));
}

TEST_F(HttpMemoryTest, EndpointLookupWithoutAHandle) {
  const std::string url = server.url("/openid");
  const std::string failure = "Couldn't retrieve SSO token endpoint from " + url + ". Curl init failed";
  allocationsLeft = 0;
  const LogCapture log;
  EXPECT_EQ(thrownBy([&] { client.retrieveTokenEndpoint(); }), "SsoException: " + failure);
  EXPECT_THAT(log.lines(),
              ElementsAre("SsoClient: Obtaining SSO token endpoint from URL: " + url,
                          "SsoClient: Requesting OpenId Configuration from URL: " + url, "SsoClient: " + failure));
  EXPECT_FALSE(client.isConfigured());
}

TEST_F(HttpMemoryTest, TokenRequestWithoutAHandle) {
  client.retrieveTokenEndpoint();
  allocationsLeft = 0;
  const LogCapture log;
  EXPECT_EQ(thrownBy([&] { client.getAccessToken("read"); }),
            "SsoException: Couldn't create access token. Curl init failed");
  EXPECT_THAT(log.lines(), ElementsAre("SsoClient: Requesting SSO access token.",
                                       "SsoClient: Couldn't retrieve SSO endpoint from " + server.url("/openid") +
                                           " . Curl init failed"));
}

TEST_F(HttpMemoryTest, Levels) {
  client.retrieveTokenEndpoint();
  allocationsLeft = 0;
  EXPECT_TRUE(isLoggedAt(LOG_LEVEL_ERROR, "Discovery: Curl initialization failed.",
                         [&] { discovery.retrieveConfiguration(); }));
  EXPECT_TRUE(
      isLoggedAt(LOG_LEVEL_ERROR,
                 "SsoClient: Couldn't retrieve SSO endpoint from " + server.url("/openid") + " . Curl init failed",
                 [&] { client.requestAccessToken("read"); }));
  EXPECT_TRUE(
      isLoggedAt(LOG_LEVEL_ERROR,
                 "SsoClient: Couldn't retrieve SSO token endpoint from " + server.url("/openid") + ". Curl init failed",
                 [&] { client.retrieveTokenEndpoint(); }));
}

/// Memory runs out at each of libcurl's allocations in turn, until it is enough.
TEST_F(HttpMemoryTest, EveryAllocationMayBeTheOneThatFails) {
  const std::function<void()> actions[] = {
      [&] { discovery.retrieveConfiguration(); },
      [&] { client.retrieveTokenEndpoint(); },
      [&] { client.requestAccessToken("read"); },
  };
  for (const auto& action : actions) {
    action();
    const OpenDescriptors open;
    std::string thrown;
    for (long limit = 0; thrown != "nothing"; ++limit) {
      ASSERT_LT(limit, 1000);
      allocationsLeft = limit;
      thrown = thrownBy(action);
      allocationsLeft = UNLIMITED;
      ASSERT_THAT(thrown, AnyOf("nothing", "std::exception: std::bad_alloc", StartsWith("SsoException: Couldn't ")))
          << limit;
      ASSERT_TRUE(open.areAsBefore()) << limit;
    }
    client.retrieveTokenEndpoint();
  }
}

}  // namespace
}  // namespace test
