// Construction, the request to the cloud, and how the results are kept.

#include <curl/curl.h>
#include <gmock/gmock.h>

#include <atomic>
#include <memory>

#include "Discovery.h"
#include "logging/logging.h"
#include "support/DeadPorts.h"
#include "support/EncryptedDiscovery.h"
#include "support/HttpServer.h"
#include "support/LogCapture.h"
#include "support/LoggedAt.h"
#include "support/OpenDescriptors.h"
#include "support/RawServer.h"
#include "support/ScriptedProvider.h"
#include "support/Thrown.h"
#include "util/HttpExchange.h"

namespace test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using velo::ssoService::Discovery;

const std::string WELL_KNOWN = "https://idp.example/.well-known/openid-configuration";

/// What is thrown when the cloud fails for this reason and no backup file is kept.
std::string cloudFailed(const std::string& reason) {
  return "SsoException: Couldn't retrieve configuration from the cloud: " + reason +
         " Cloud config caching not enabled";
}

class DiscoveryTest : public testing::Test {
 protected:
  const velo::ssoService::HttpLibrary library;
  HttpServer server;
  ScriptedProvider provider;
  const std::string payload = discoveryPayload(WELL_KNOWN);
  const HttpReply good{200, discoveryReply(payload, deviceIdentity().certificate)};

  Discovery makeDiscovery(const std::string& url) { return {url, false, "", &provider}; }
};

TEST_F(DiscoveryTest, ConstructionWithoutUrlOrProviderIsRefused) {
  const LogCapture log;
  const std::string noUrl = "SsoException: Cannot create Discovery: endpoint URL not specified";
  EXPECT_EQ(thrownBy([&] { Discovery("", false, "", &provider); }), noUrl);
  EXPECT_EQ(thrownBy([&] { Discovery("", false, "", nullptr); }), noUrl);
  EXPECT_EQ(thrownBy([&] { Discovery("http://cloud/", true, "/", nullptr); }),
            "KCException: Cannot create Discovery: no certificate provider given");
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_THAT(provider.calls, IsEmpty());
}

TEST_F(DiscoveryTest, FailureOfTheCertificateIdPassesOutOfTheConstructor) {
  provider.certificateIdSource = ScriptedProvider::fails("no id");
  const LogCapture log;
  EXPECT_EQ(thrownBy([&] { Discovery("http://cloud/", false, "", &provider); }), "KCException: no id");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(DiscoveryTest, NothingIsRequestedAtConstruction) {
  const LogCapture log;
  const Discovery discovery = makeDiscovery(server.url("/devices/"));
  EXPECT_FALSE(discovery.hasConfiguration());
  EXPECT_THAT(server.requestLines(), IsEmpty());
  EXPECT_THAT(log.lines(),
              ElementsAre("kcProviders/KeyCertificateProvider: SSO Reading client_id from certificate subject.",
                          "Discovery: Discovery using device id device-0001 from the certificate"));
}

TEST_F(DiscoveryTest, DeviceIdIsTakenOnce) {
  server.on("/devices/device-0001", good);
  Discovery discovery = makeDiscovery(server.url("/devices/"));
  EXPECT_THAT(provider.calls, ElementsAre("getCertificateId(false)", "getCertificate(false)"));
  provider.certificateSource = [] { return otherIdentity().certificate; };
  provider.getCertificateId(true);
  provider.calls.clear();
  discovery.retrieveConfiguration();
  EXPECT_THAT(provider.calls, ElementsAre("getPrivateKey(false)"));
  EXPECT_THAT(server.requestLines(), ElementsAre("GET /devices/device-0001"));
}

TEST_F(DiscoveryTest, DeviceIdIsAppendedToTheUrlAsItIs) {
  const struct {
    const char* prefix;
    const char* id;
    const char* target;
  } rows[] = {
      {"/devices/", "abc", "/devices/abc"},
      {"/devices", "abc", "/devicesabc"},
      {"/devices?id=", "abc", "/devices?id=abc"},
      {"/devices/", "DE/CN=a%20b&c", "/devices/DE/CN=a%20b&c"},
      {"/", "a+b", "/a+b"},
  };
  for (const auto& row : rows) {
    provider.certificateIdSource = [&row] { return row.id; };
    Discovery discovery = makeDiscovery(server.url(row.prefix));
    EXPECT_NE(thrownBy([&] { discovery.retrieveConfiguration(); }), "nothing");
    EXPECT_EQ(server.requestLines().back(), std::string("GET ") + row.target);
  }
}

TEST_F(DiscoveryTest, RequestHasNoHeadersOfItsOwn) {
  RawServer raw;
  raw.answer({send(okReply(good.body))});
  Discovery discovery = makeDiscovery(raw.url("/devices/"));
  discovery.retrieveConfiguration();
  EXPECT_THAT(raw.requests(), ElementsAre("GET /devices/device-0001 HTTP/1.1\r\nHost: 127.0.0.1:" +
                                          std::to_string(raw.port()) + "\r\nAccept: */*\r\n\r\n"));
}

TEST_F(DiscoveryTest, SuccessIsLoggedStepByStep) {
  const std::string longUrl = WELL_KNOWN + "?" + std::string(200, 'x');
  server.on("/devices/device-0001",
            HttpReply{200, discoveryReply(discoveryPayload(longUrl), deviceIdentity().certificate)});
  Discovery discovery = makeDiscovery(server.url("/devices/"));
  const LogCapture log;
  discovery.retrieveConfiguration();
  EXPECT_THAT(log.lines(),
              ElementsAre("Discovery: Making discovery request to " + server.url("/devices/"),
                          "Discovery: Discovery request, Curl response code: 200",
                          "Discovery: Discovery Request, found data tag.", "Discovery: base64 decoded size: 512",
                          "Discovery: Decrypting Discovery Request: 512 size", "Discovery: string offset : 0",
                          "Discovery: string offset : 256", "Discovery: Discovery Request successfully decoded",
                          "Discovery: SSO well known endpoint found: " + longUrl));
  EXPECT_EQ(discovery.getSsoWellKnownUrl(), longUrl);
}

TEST_F(DiscoveryTest, EverySuccessStatusIsTaken) {
  for (const int status : {200, 201, 206, 226, 299}) {
    server.on("/devices/device-0001", HttpReply{status, good.body});
    Discovery discovery = makeDiscovery(server.url("/devices/"));
    discovery.retrieveConfiguration();
    EXPECT_TRUE(discovery.hasConfiguration()) << status;
  }
}

TEST_F(DiscoveryTest, EveryOtherStatusFails) {
  for (const int status : {300, 304, 400, 401, 404, 418, 500, 503, 599}) {
    server.on("/devices/device-0001", HttpReply{status, good.body});
    Discovery discovery = makeDiscovery(server.url("/devices/"));
    const std::string reason = "Couldn't retrieve discovery data from " + server.url("/devices/") +
                               ". Curl returned: " + std::to_string(status);
    const std::string code = "Discovery: Discovery request, Curl response code: " + std::to_string(status);
    const LogCapture log;
    EXPECT_EQ(thrownBy([&] { discovery.retrieveConfiguration(); }), cloudFailed(reason));
    EXPECT_THAT(log.lines(),
                ElementsAre("Discovery: Making discovery request to " + server.url("/devices/"), code, code,
                            "Discovery: Couldn't retrieve configuration from the cloud: " + reason +
                                ". Cloud config caching not enabled"));
    EXPECT_FALSE(discovery.hasConfiguration());
  }
}

TEST_F(DiscoveryTest, RedirectsAreFollowed) {
  for (const int status : {301, 302, 303, 307, 308}) {
    server.on("/devices/device-0001", HttpReply{status, "", {{"Location", server.url("/elsewhere")}}});
    server.on("/elsewhere", good);
    Discovery discovery = makeDiscovery(server.url("/devices/"));
    discovery.retrieveConfiguration();
    EXPECT_TRUE(discovery.hasConfiguration()) << status;
    EXPECT_EQ(server.requestLines().back(), "GET /elsewhere") << status;
  }
}

TEST_F(DiscoveryTest, StatusIsThatOfTheLastResponse) {
  server.on("/devices/device-0001", redirectTo(server.url("/missing")));
  Discovery discovery = makeDiscovery(server.url("/devices/"));
  EXPECT_EQ(thrownBy([&] { discovery.retrieveConfiguration(); }),
            cloudFailed("Couldn't retrieve discovery data from " + server.url("/devices/") + ". Curl returned: 404"));
  EXPECT_THAT(server.requestLines(), ElementsAre("GET /devices/device-0001", "GET /missing"));
}

/// Lets /devices/device-0001 be redirected so many times before the good reply comes.
void redirectTimes(HttpServer& server, int times, const HttpReply& good) {
  const auto left = std::make_shared<std::atomic<int>>(times);
  server.on("/devices/device-0001", [&server, left, good](const HttpRequest&) {
    return (*left)-- > 0 ? redirectTo(server.url("/devices/device-0001")) : good;
  });
}

TEST_F(DiscoveryTest, FiftyRedirectsAreFollowedAndNoMore) {
  redirectTimes(server, 50, good);
  Discovery discovery = makeDiscovery(server.url("/devices/"));
  EXPECT_EQ(thrownBy([&] { discovery.retrieveConfiguration(); }), "nothing");
  redirectTimes(server, 51, good);
  EXPECT_EQ(thrownBy([&] { discovery.retrieveConfiguration(); }),
            cloudFailed("Couldn't retrieve discovery data from " + server.url("/devices/") +
                        " Curl failed. Error: " + curl_easy_strerror(CURLE_TOO_MANY_REDIRECTS)));
  EXPECT_EQ(server.requestLines().size(), 51U + 51U);
}

TEST_F(DiscoveryTest, FailedTransfersAreReportedWithCurlsText) {
  const struct {
    const char* name;
    Script script;
    CURLcode code;
  } rows[] = {
      {"closed without a byte", {}, CURLE_GOT_NOTHING},
      {"reset without a byte", {reset()}, CURLE_RECV_ERROR},
      {"body shorter than announced",
       {send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n{\"data\"")},
       CURLE_PARTIAL_FILE},
      {"reset within the body",
       {send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n{\"data\""), pause(std::chrono::milliseconds(20)),
        reset()},
       CURLE_RECV_ERROR},
      {"no HTTP", {send("220 mail.example ESMTP\r\n")}, CURLE_UNSUPPORTED_PROTOCOL},
      {"chunk without a length",
       {send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n")},
       CURLE_RECV_ERROR},
  };
  RawServer raw;
  for (const auto& row : rows) {
    raw.answer(row.script);
    Discovery discovery = makeDiscovery(raw.url("/devices/"));
    const std::string error = curl_easy_strerror(row.code);
    const LogCapture log;
    EXPECT_EQ(
        thrownBy([&] { discovery.retrieveConfiguration(); }),
        cloudFailed("Couldn't retrieve discovery data from " + raw.url("/devices/") + " Curl failed. Error: " + error))
        << row.name;
    EXPECT_EQ(log.lines().at(1), "Discovery: curl_easy_perform() failed: " + error) << row.name;
  }
}

TEST_F(DiscoveryTest, UnreachableCloudIsReportedWithCurlsText) {
  const ClosedPort closed;
  const std::string url = "http://127.0.0.1:" + std::to_string(closed.port()) + "/devices/";
  const struct {
    std::string url;
    CURLcode code;
  } rows[] = {
      {url, CURLE_COULDNT_CONNECT},
      {"nothing://127.0.0.1/", CURLE_UNSUPPORTED_PROTOCOL},
      {"http://127.0.0.1:port/", CURLE_URL_MALFORMAT},
  };
  for (const auto& row : rows) {
    Discovery discovery = makeDiscovery(row.url);
    const std::string error = curl_easy_strerror(row.code);
    const std::string reason = "Couldn't retrieve discovery data from " + row.url + " Curl failed. Error: " + error;
    const LogCapture log;
    EXPECT_EQ(thrownBy([&] { discovery.retrieveConfiguration(); }), cloudFailed(reason));
    EXPECT_THAT(log.lines(), ElementsAre("Discovery: Making discovery request to " + row.url,
                                         "Discovery: curl_easy_perform() failed: " + error,
                                         "Discovery: Couldn't retrieve configuration from the cloud: " + reason +
                                             ". Cloud config caching not enabled"));
  }
}

TEST_F(DiscoveryTest, ReplyOfMoreThanTheLimitEndsTheTransfer) {
  const std::string padding = "{\"data\":5}";
  const auto replyOf = [&](std::size_t size) { return padding + std::string(size - padding.size(), ' '); };
  Discovery discovery = makeDiscovery(server.url("/devices/"));
  server.on("/devices/device-0001", HttpReply{200, replyOf(velo::ssoService::MAX_RESPONSE_BYTES)});
  EXPECT_EQ(thrownBy([&] { discovery.retrieveConfiguration(); }),
            cloudFailed("Error processing JSON returned by Discovery Request."
                        "JSON returned by Discovery Request is missing data tag."));
  server.on("/devices/device-0001", HttpReply{200, replyOf(velo::ssoService::MAX_RESPONSE_BYTES + 1)});
  EXPECT_EQ(thrownBy([&] { discovery.retrieveConfiguration(); }),
            cloudFailed("Couldn't retrieve discovery data from " + server.url("/devices/") +
                        " Curl failed. Error: " + curl_easy_strerror(CURLE_WRITE_ERROR)));
}

TEST_F(DiscoveryTest, ResultsAreRetrievedOnDemandAndOnce) {
  server.on("/devices/device-0001", good);
  Discovery forData = makeDiscovery(server.url("/devices/"));
  EXPECT_EQ(forData.getDiscoveryData(), payload);
  EXPECT_TRUE(forData.hasConfiguration());
  EXPECT_EQ(forData.getSsoWellKnownUrl(), WELL_KNOWN);
  EXPECT_EQ(forData.getDiscoveryData(), payload);
  EXPECT_EQ(server.requestLines().size(), 1U);
  Discovery forUrl = makeDiscovery(server.url("/devices/"));
  EXPECT_EQ(forUrl.getSsoWellKnownUrl(), WELL_KNOWN);
  EXPECT_EQ(forUrl.getDiscoveryData(), payload);
  EXPECT_EQ(server.requestLines().size(), 2U);
}

TEST_F(DiscoveryTest, EveryRetrievalStartsAfresh) {
  Discovery discovery = makeDiscovery(server.url("/devices/"));
  for (const char* url : {"http://first", "http://second"}) {
    server.on("/devices/device-0001",
              HttpReply{200, discoveryReply(discoveryPayload(url), deviceIdentity().certificate)});
    discovery.retrieveConfiguration();
    EXPECT_EQ(discovery.getSsoWellKnownUrl(), url);
    EXPECT_EQ(discovery.getDiscoveryData(), discoveryPayload(url));
  }
}

TEST_F(DiscoveryTest, FailedRetrievalEmptiesTheResults) {
  server.on("/devices/device-0001", good);
  Discovery discovery = makeDiscovery(server.url("/devices/"));
  discovery.retrieveConfiguration();
  server.on("/devices/device-0001", HttpReply{500});
  thrownBy([&] { discovery.retrieveConfiguration(); });
  EXPECT_FALSE(discovery.hasConfiguration());
  EXPECT_NE(thrownBy([&] { discovery.getDiscoveryData(); }), "nothing");
  EXPECT_NE(thrownBy([&] { discovery.getSsoWellKnownUrl(); }), "nothing");
  EXPECT_EQ(server.requestLines().size(), 4U);
}

TEST_F(DiscoveryTest, NoDescriptorStaysOpen) {
  const ClosedPort closed;
  RawServer raw;
  server.on("/devices/device-0001", good);
  const std::string urls[] = {
      server.url("/devices/"),
      server.url("/missing/"),
      raw.url("/"),
      "http://127.0.0.1:" + std::to_string(closed.port()) + "/",
      "nothing://",
  };
  makeDiscovery(urls[0]).retrieveConfiguration();  // what libraries open for good is open then
  const OpenDescriptors open;
  for (const std::string& url : urls) {
    Discovery discovery = makeDiscovery(url);
    thrownBy([&] { discovery.retrieveConfiguration(); });
    EXPECT_TRUE(open.areAsBefore()) << url;
  }
}

TEST_F(DiscoveryTest, Levels) {
  server.on("/devices/device-0001", good);
  const ClosedPort closed;
  const std::string closedUrl = "http://127.0.0.1:" + std::to_string(closed.port()) + "/";
  const struct {
    int level;
    std::string line;
    std::string url;
  } rows[] = {
      {LOG_LEVEL_INFO, "Discovery: Discovery using device id device-0001 from the certificate", "http://127.0.0.1:1/"},
      {LOG_LEVEL_INFO, "Discovery: Making discovery request to " + server.url("/devices/"), server.url("/devices/")},
      {LOG_LEVEL_DEBUG, "Discovery: Discovery request, Curl response code: 200", server.url("/devices/")},
      {LOG_LEVEL_ERROR, "Discovery: Discovery request, Curl response code: 404", server.url("/missing/")},
      {LOG_LEVEL_ERROR,
       std::string("Discovery: curl_easy_perform() failed: ") + curl_easy_strerror(CURLE_COULDNT_CONNECT), closedUrl},
  };
  for (const auto& row : rows) {
    EXPECT_TRUE(isLoggedAt(row.level, row.line, [&] { makeDiscovery(row.url).retrieveConfiguration(); }));
  }
}

/// Without it a stalled name server would hold up the whole service, and a time-out would need a signal.
TEST_F(DiscoveryTest, CurlResolvesNamesAsynchronously) {
  EXPECT_NE(curl_version_info(CURLVERSION_NOW)->features & CURL_VERSION_ASYNCHDNS, 0);
}

}  // namespace
}  // namespace test
