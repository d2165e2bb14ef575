// Construction and the lookup of the token endpoint.

#include <curl/curl.h>
#include <gmock/gmock.h>

#include <atomic>
#include <memory>

#include "SsoClient.h"
#include "logging/logging.h"
#include "support/DeadPorts.h"
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
using velo::ssoService::SsoClient;

const std::string GOOD = R"({"issuer":"x","token_endpoint":"https://idp.example/token","more":[1]})";
const std::string NO_ENDPOINT = "SsoException: Couldn't retrieve SSO token endpoint from ";

class SsoClientTest : public testing::Test {
 protected:
  const velo::ssoService::HttpLibrary library;
  HttpServer server;
  ScriptedProvider provider;
  const std::string url = server.url("/openid");
  SsoClient client{url, &provider};

  void answer(const std::string& body, int status = 200) { server.on("/openid", HttpReply{status, body}); }
  std::string failure() {
    return thrownBy([this] { client.retrieveTokenEndpoint(); });
  }
};

TEST_F(SsoClientTest, ConstructionWithoutUrlOrProviderIsRefused) {
  const LogCapture log;
  provider.calls.clear();
  const std::string noUrl = "SsoException: Cannot create SSO client: server URL not specified";
  EXPECT_EQ(thrownBy([&] { SsoClient("", &provider); }), noUrl);
  EXPECT_EQ(thrownBy([&] { SsoClient("", nullptr); }), noUrl);
  EXPECT_EQ(thrownBy([&] { SsoClient("http://x", nullptr); }),
            "KCException: Cannot create SSO client: no certificate provider given");
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_THAT(provider.calls, IsEmpty());
}

TEST_F(SsoClientTest, ConstructionAsksForTheCertificateIdAndLogsNothing) {
  provider.certificateIdSource = [] { return "id"; };
  provider.calls.clear();
  const LogCapture log;
  const SsoClient another("not even a URL", &provider);
  EXPECT_FALSE(another.isConfigured());
  EXPECT_THAT(provider.calls, ElementsAre("getCertificateId(false)"));
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_THAT(server.requestLines(), IsEmpty());
}

TEST_F(SsoClientTest, FailureOfTheCertificateIdPassesOutOfTheConstructor) {
  provider.certificateIdSource = ScriptedProvider::fails("no id");
  EXPECT_EQ(thrownBy([&] { SsoClient("http://x", &provider); }), "KCException: no id");
}

TEST_F(SsoClientTest, SuccessIsLoggedStepByStep) {
  answer(GOOD);
  const LogCapture log;
  client.retrieveTokenEndpoint();
  EXPECT_TRUE(client.isConfigured());
  EXPECT_THAT(log.lines(), ElementsAre("SsoClient: Obtaining SSO token endpoint from URL: " + url,
                                       "SsoClient: Requesting OpenId Configuration from URL: " + url,
                                       "SsoClient: Curl response code: 200", "SsoClient: Curl results: " + GOOD,
                                       "SsoClient: found token_endpoint: https://idp.example/token"));
}

TEST_F(SsoClientTest, RequestHasNoHeadersOfItsOwnAndTheUrlAsItIs) {
  RawServer raw;
  raw.answer({send(okReply(GOOD))});
  SsoClient(raw.url("/openid?a=b&c=%20"), &provider).retrieveTokenEndpoint();
  EXPECT_THAT(raw.requests(), ElementsAre("GET /openid?a=b&c=%20 HTTP/1.1\r\nHost: 127.0.0.1:" +
                                          std::to_string(raw.port()) + "\r\nAccept: */*\r\n\r\n"));
}

TEST_F(SsoClientTest, UrlWithoutHttpAnywhereIsRefused) {
  for (const char* invalid : {"ftp://127.0.0.1/openid", "HTTP://127.0.0.1/openid", "127.0.0.1", "htt", " ", "%s%n"}) {
    SsoClient another(invalid, &provider);
    const LogCapture log;
    EXPECT_EQ(thrownBy([&] { another.retrieveTokenEndpoint(); }),
              std::string("SsoException: Invalid sso URL: ") + invalid);
    EXPECT_THAT(log.lines(), ElementsAre(std::string("SsoClient: Obtaining SSO token endpoint from URL: ") + invalid,
                                         std::string("SsoClient: Invalid sso URL: ") + invalid));
    EXPECT_FALSE(another.isConfigured());
  }
}

TEST_F(SsoClientTest, UnreachableUrlIsReportedWithCurlsText) {
  const ClosedPort closed;
  const std::string address = "127.0.0.1:" + std::to_string(closed.port());
  const struct {
    std::string url;
    CURLcode code;
  } rows[] = {
      {"http://" + address + "/", CURLE_COULDNT_CONNECT},
      {address + "/some/http/path", CURLE_COULDNT_CONNECT},
      {"https://" + address + "/", CURLE_COULDNT_CONNECT},
      {"ftp://" + address + "/http", CURLE_UNSUPPORTED_PROTOCOL},
      {"nothing://" + address + "/http", CURLE_UNSUPPORTED_PROTOCOL},
      {"http://127.0.0.1:port/", CURLE_URL_MALFORMAT},
      {"file:///nowhere/http", CURLE_UNSUPPORTED_PROTOCOL},
  };
  for (const auto& row : rows) {
    SsoClient another(row.url, &provider);
    const std::string error = curl_easy_strerror(row.code);
    const LogCapture log;
    EXPECT_EQ(thrownBy([&] { another.retrieveTokenEndpoint(); }),
              "SsoException: Couldn't retrieve SSO endpoint from " + row.url + ". Error: " + error);
    EXPECT_THAT(log.lines(), ElementsAre("SsoClient: Obtaining SSO token endpoint from URL: " + row.url,
                                         "SsoClient: Requesting OpenId Configuration from URL: " + row.url,
                                         "SsoClient: curl_easy_perform() failed: " + error));
    EXPECT_FALSE(another.isConfigured());
  }
}

TEST_F(SsoClientTest, FailedTransfersAreReportedWithCurlsText) {
  const struct {
    const char* name;
    Script script;
    CURLcode code;
  } rows[] = {
      {"closed without a byte", {}, CURLE_GOT_NOTHING},
      {"reset without a byte", {reset()}, CURLE_RECV_ERROR},
      {"shorter than announced", {send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + GOOD)}, CURLE_PARTIAL_FILE},
      {"no HTTP", {send("220 mail.example ESMTP\r\n")}, CURLE_UNSUPPORTED_PROTOCOL},
  };
  RawServer raw;
  for (const auto& row : rows) {
    raw.answer(row.script);
    SsoClient another(raw.url("/openid"), &provider);
    EXPECT_EQ(thrownBy([&] { another.retrieveTokenEndpoint(); }), "SsoException: Couldn't retrieve SSO endpoint from " +
                                                                      raw.url("/openid") +
                                                                      ". Error: " + curl_easy_strerror(row.code))
        << row.name;
  }
}

TEST_F(SsoClientTest, ReplyOfMoreThanTheLimitEndsTheTransfer) {
  answer(GOOD + std::string(velo::ssoService::MAX_RESPONSE_BYTES - GOOD.size(), ' '));
  EXPECT_EQ(failure(), "nothing");
  answer(GOOD + std::string(velo::ssoService::MAX_RESPONSE_BYTES - GOOD.size() + 1, ' '));
  EXPECT_EQ(failure(), "SsoException: Couldn't retrieve SSO endpoint from " + url +
                           ". Error: " + curl_easy_strerror(CURLE_WRITE_ERROR));
  EXPECT_FALSE(client.isConfigured());
}

TEST_F(SsoClientTest, EverySuccessStatusIsTaken) {
  for (const int status : {200, 201, 299}) {
    answer(GOOD, status);
    EXPECT_EQ(failure(), "nothing") << status;
  }
}

TEST_F(SsoClientTest, EveryOtherStatusFails) {
  for (const int status : {300, 400, 404, 500, 503}) {
    answer(GOOD, status);
    const std::string code = "SsoClient: Curl response code: " + std::to_string(status);
    const LogCapture log;
    EXPECT_EQ(failure(), NO_ENDPOINT + url + ". Return code: " + std::to_string(status));
    EXPECT_THAT(log.lines(), ElementsAre("SsoClient: Obtaining SSO token endpoint from URL: " + url,
                                         "SsoClient: Requesting OpenId Configuration from URL: " + url, code,
                                         "SsoClient: Curl results: " + GOOD, code));
    EXPECT_FALSE(client.isConfigured());
  }
}

TEST_F(SsoClientTest, RedirectsAreFollowedAndTheLastStatusCounts) {
  server.on("/openid", redirectTo(server.url("/moved")));
  server.on("/moved", HttpReply{200, GOOD});
  EXPECT_EQ(failure(), "nothing");
  EXPECT_THAT(server.requestLines(), ElementsAre("GET /openid", "GET /moved"));
  server.on("/moved", HttpReply{410, GOOD});
  EXPECT_EQ(failure(), NO_ENDPOINT + url + ". Return code: 410");
}

TEST_F(SsoClientTest, FiftyRedirectsAreFollowedAndNoMore) {
  const auto redirectsLeft = std::make_shared<std::atomic<int>>();
  server.on("/openid", [this, redirectsLeft](const HttpRequest&) {
    return (*redirectsLeft)-- > 0 ? redirectTo(url) : HttpReply{200, GOOD};
  });
  *redirectsLeft = 50;
  EXPECT_EQ(failure(), "nothing");
  *redirectsLeft = 51;
  EXPECT_EQ(failure(), "SsoException: Couldn't retrieve SSO endpoint from " + url +
                           ". Error: " + curl_easy_strerror(CURLE_TOO_MANY_REDIRECTS));
}

TEST_F(SsoClientTest, BodyWithoutTheMemberIsInvalidJson) {
  const char* bodies[] = {
      "",
      " ",
      "<html>%s%n</html>",
      "{}",
      "[]",
      R"(["token_endpoint"])",
      R"({"Token_endpoint":"x"})",
      R"({"token_endpoint":"x")",
      R"({"token_endpoint":"x","token_endpoint":"y"})",
      R"({"nested":{"token_endpoint":"x"}})",
      R"("token_endpoint")",
  };
  for (const char* body : bodies) {
    answer(body);
    const LogCapture log;
    EXPECT_EQ(failure(), NO_ENDPOINT + url + ". Received invalid json " + body);
    EXPECT_THAT(
        log.lines(),
        ElementsAre("SsoClient: Obtaining SSO token endpoint from URL: " + url,
                    "SsoClient: Requesting OpenId Configuration from URL: " + url, "SsoClient: Curl response code: 200",
                    std::string("SsoClient: Curl results: ") + body, "SsoClient: Not a valid JSON."));
    EXPECT_FALSE(client.isConfigured());
  }
}

TEST_F(SsoClientTest, AnswerWithoutContentIsInvalidJson) {
  answer("", 204);
  EXPECT_EQ(failure(), NO_ENDPOINT + url + ". Received invalid json ");
}

TEST_F(SsoClientTest, MemberThatIsNoStringIsAMissingEndpoint) {
  for (const char* value : {"5", "null", "true", "{}", R"(["https://idp.example/token"])"}) {
    const std::string body = std::string(R"({"token_endpoint":)") + value + "}";
    answer(body);
    const LogCapture log;
    EXPECT_EQ(failure(), NO_ENDPOINT + url + ". Missing endpoint ");
    EXPECT_THAT(log.lines(), ElementsAre("SsoClient: Obtaining SSO token endpoint from URL: " + url,
                                         "SsoClient: Requesting OpenId Configuration from URL: " + url,
                                         "SsoClient: Curl response code: 200", "SsoClient: Curl results: " + body,
                                         "SsoClient: Missing token_endpoint tag"));
    EXPECT_FALSE(client.isConfigured());
  }
}

TEST_F(SsoClientTest, EmptyEndpointIsFoundAndMissing) {
  answer(R"({"token_endpoint":""})");
  const LogCapture log;
  EXPECT_EQ(failure(), NO_ENDPOINT + url + ". Missing endpoint ");
  EXPECT_EQ(log.lines().back(), "SsoClient: found token_endpoint: ");
}

TEST_F(SsoClientTest, FailedLookupEmptiesTheEndpoint) {
  answer(GOOD);
  client.retrieveTokenEndpoint();
  answer(GOOD, 500);
  failure();
  EXPECT_FALSE(client.isConfigured());
  answer(GOOD);
  EXPECT_EQ(failure(), "nothing");
  EXPECT_TRUE(client.isConfigured());
}

TEST_F(SsoClientTest, NoDescriptorStaysOpen) {
  answer(GOOD);
  failure();
  RawServer raw;
  const ClosedPort closed;
  const OpenDescriptors open;
  for (const std::string& used :
       {url, server.url("/missing"), raw.url("/"), "http://127.0.0.1:" + std::to_string(closed.port()),
        std::string("ftp://127.0.0.1/")}) {
    thrownBy([&] { SsoClient(used, &provider).retrieveTokenEndpoint(); });
    EXPECT_TRUE(open.areAsBefore()) << used;
  }
}

TEST_F(SsoClientTest, Levels) {
  const ClosedPort closed;
  const std::string closedUrl = "http://127.0.0.1:" + std::to_string(closed.port());
  server.on("/good", HttpReply{200, GOOD});
  server.on("/number", HttpReply{200, R"({"token_endpoint":5})"});
  server.on("/empty", HttpReply{200, "{}"});
  const struct {
    int level;
    std::string message;
    std::string url;
  } rows[] = {
      {LOG_LEVEL_DEBUG, "Obtaining SSO token endpoint from URL: " + server.url("/good"), server.url("/good")},
      {LOG_LEVEL_ERROR, "Invalid sso URL: ftp://x", "ftp://x"},
      {LOG_LEVEL_DEBUG, "Requesting OpenId Configuration from URL: " + server.url("/good"), server.url("/good")},
      {LOG_LEVEL_ERROR, std::string("curl_easy_perform() failed: ") + curl_easy_strerror(CURLE_COULDNT_CONNECT),
       closedUrl},
      {LOG_LEVEL_DEBUG, "Curl response code: 200", server.url("/good")},
      {LOG_LEVEL_DEBUG, "Curl results: " + GOOD, server.url("/good")},
      {LOG_LEVEL_ERROR, "Curl response code: 404", server.url("/missing")},
      {LOG_LEVEL_DEBUG, "found token_endpoint: https://idp.example/token", server.url("/good")},
      {LOG_LEVEL_ERROR, "Missing token_endpoint tag", server.url("/number")},
      {LOG_LEVEL_ERROR, "Not a valid JSON.", server.url("/empty")},
  };
  for (const auto& row : rows) {
    EXPECT_TRUE(isLoggedAt(row.level, "SsoClient: " + row.message,
                           [&] { SsoClient(row.url, &provider).retrieveTokenEndpoint(); }));
  }
}

}  // namespace
}  // namespace test
