// Access tokens by scope: what is sent to the token endpoint, what is made of its answers, and what is kept.

#include <curl/curl.h>
#include <gmock/gmock.h>

#include "SsoClient.h"
#include "json/json.h"
#include "logging/logging.h"
#include "support/DeadPorts.h"
#include "support/DecodedToken.h"
#include "support/HttpServer.h"
#include "support/LogCapture.h"
#include "support/LogReset.h"
#include "support/LoggedAt.h"
#include "support/OpenDescriptors.h"
#include "support/RawServer.h"
#include "support/ScriptedProvider.h"
#include "support/TestClock.h"
#include "support/Thrown.h"
#include "support/WithinOneSecond.h"
#include "util/HttpExchange.h"

namespace test {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using velo::ssoService::SsoClient;

const std::string BEFORE_ASSERTION =
    "&client_assertion_type=urn:ietf:params:oauth:client-assertion-type:jwt-bearer&client_assertion=";

std::string grant(const std::string& token, const std::string& expiresIn = "3600") {
  return R"({"access_token":")" + token + R"(","expires_in":)" + expiresIn + "}";
}

/// The assertion at the end of a form.
std::string assertionOf(const std::string& form) {
  return form.substr(form.find(BEFORE_ASSERTION) + BEFORE_ASSERTION.size());
}

class AccessTokenRequestTest : public testing::Test {
 protected:
  AccessTokenRequestTest() {
    useEndpoint(server.url("/token"));
    answer(grant("a token"));
  }
  ~AccessTokenRequestTest() override { moveClock(seconds(0)); }

  void useEndpoint(const std::string& endpoint) {
    server.on("/openid", HttpReply{200, R"({"token_endpoint":")" + endpoint + R"("})"});
  }
  void answer(const std::string& body, int status = 200) { server.on("/token", HttpReply{status, body}); }

  std::string failure(const std::string& scope = "read") {
    return thrownBy([&] { client.getAccessToken(scope); });
  }

  /// The bodies of the token requests so far.
  std::vector<std::string> forms() const {
    std::vector<std::string> found;
    for (const HttpRequest& request : server.requests()) {
      if (request.method == "POST") {
        found.push_back(request.body);
      }
    }
    return found;
  }

  const velo::ssoService::HttpLibrary library;
  HttpServer server;
  ScriptedProvider provider;
  const std::string configurationUrl = server.url("/openid");
  SsoClient client{configurationUrl, &provider};
};

TEST_F(AccessTokenRequestTest, RequestIsAFormWithTwoHeaders) {
  RawServer raw;
  raw.answer({send(okReply(grant("a token")))});
  useEndpoint(raw.url("/token"));
  EXPECT_EQ(client.getAccessToken("read"), "a token");
  const std::string request = raw.requests().at(0);
  const std::size_t end = request.find("\r\n\r\n");
  const std::string form = request.substr(end + 4);
  std::vector<std::string> head;
  for (std::size_t begin = 0; begin < end; begin = request.find("\r\n", begin) + 2) {
    head.push_back(request.substr(begin, request.find("\r\n", begin) - begin));
  }
  EXPECT_EQ(head.at(0), "POST /token HTTP/1.1");
  EXPECT_THAT(head, UnorderedElementsAre("POST /token HTTP/1.1", "Host: 127.0.0.1:" + std::to_string(raw.port()),
                                         "Content-Type: application/x-www-form-urlencoded", "Accept: application/json",
                                         "Content-Length: " + std::to_string(form.size())));
  EXPECT_LT(request.find("Content-Type:"), request.find("Accept:"));
  const std::string assertion = assertionOf(form);
  EXPECT_EQ(form, "grant_type=client_credentials&scope=read" + BEFORE_ASSERTION + assertion);
  const DecodedToken token(assertion);
  EXPECT_TRUE(verifiesRs256(deviceIdentity().certificate, token.signedText, token.signature));
  EXPECT_EQ(json::jobject::parse(token.payload)["aud"].as_string(), raw.url("/token"));
}

TEST_F(AccessTokenRequestTest, ScopeIsSentAsItIs) {
  for (const std::string& scope : {std::string("read"), std::string(), std::string("a b"),
                                   std::string("x&y=z%20+\xC3\xA4"), std::string(2000, 's')}) {
    client.getAccessToken(scope);
    const std::string form = forms().back();
    EXPECT_EQ(form, "grant_type=client_credentials&scope=" + scope + BEFORE_ASSERTION + assertionOf(form));
  }
}

TEST_F(AccessTokenRequestTest, FormEndsAtANulInTheScope) {
  client.getAccessToken(std::string("a\0b", 3));
  EXPECT_EQ(forms().back(), "grant_type=client_credentials&scope=a");
}

TEST_F(AccessTokenRequestTest, FirstRequestIsLoggedStepByStep) {
  const LogCapture log;
  client.getAccessToken("read");
  const std::string configuration = R"({"token_endpoint":")" + server.url("/token") + R"("})";
  EXPECT_THAT(log.lines(),
              ElementsAre("SsoClient: Obtaining SSO token endpoint from URL: " + configurationUrl,
                          "SsoClient: Requesting OpenId Configuration from URL: " + configurationUrl,
                          "SsoClient: Curl response code: 200", "SsoClient: Curl results: " + configuration,
                          "SsoClient: found token_endpoint: " + server.url("/token"),
                          "SsoClient: Requesting SSO access token.", "SsoClient: Scope: read",
                          "SsoClient: Curl response code: 200", "SsoClient: Curl result: " + grant("a token"),
                          "AccessToken: Access token: ", "AccessToken: Access token expires in 3600 seconds"));
}

TEST_F(AccessTokenRequestTest, CachedTokenIsGivenInSilence) {
  EXPECT_EQ(client.getAccessToken("read"), "a token");
  answer(grant("another token"));
  const LogCapture log;
  provider.calls.clear();
  EXPECT_EQ(client.getAccessToken("read"), "a token");
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_THAT(provider.calls, IsEmpty());
  EXPECT_THAT(server.requestLines(), ElementsAre("GET /openid", "POST /token"));
}

TEST_F(AccessTokenRequestTest, TokenIsRenewedWithFewerThanTwentySecondsLeft) {
  const struct {
    int later;
    const char* token;
  } rows[] = {{3579, "first"}, {3580, "first"}, {3581, "second"}, {3600, "second"}, {100000, "second"}};
  for (const auto& row : rows) {
    const std::string token = withinOneSecond([&] {
      answer(grant("first"));
      SsoClient fresh(configurationUrl, &provider);
      fresh.getAccessToken("read");
      answer(grant("second"));
      moveClock(seconds(row.later));
      return fresh.getAccessToken("read");
    });
    EXPECT_EQ(token, row.token) << row.later << " seconds later";
  }
}

TEST_F(AccessTokenRequestTest, EveryRequestHasANewAssertionAndTheLookupIsDoneOnce) {
  client.getAccessToken("read");
  moveClock(seconds(4000));
  client.getAccessToken("read");
  client.getAccessToken("write");
  EXPECT_THAT(server.requestLines(), ElementsAre("GET /openid", "POST /token", "POST /token", "POST /token"));
  std::vector<std::string> ids;
  for (const std::string& form : forms()) {
    ids.push_back(json::jobject::parse(DecodedToken(assertionOf(form)).payload)["jti"].as_string());
  }
  EXPECT_NE(ids.at(0), ids.at(1));
  EXPECT_NE(ids.at(1), ids.at(2));
  EXPECT_NE(ids.at(0), ids.at(2));
}

TEST_F(AccessTokenRequestTest, ScopesHaveTokensOfTheirOwn) {
  const std::vector<std::string> scopes = {"", "read", "Read", "read ", "read write"};
  for (const std::string& scope : scopes) {
    answer(grant("token of " + scope));
    EXPECT_EQ(client.getAccessToken(scope), "token of " + scope);
  }
  answer("", 500);
  for (const std::string& scope : scopes) {
    EXPECT_EQ(client.getAccessToken(scope), "token of " + scope);
  }
}

TEST_F(AccessTokenRequestTest, CacheOfMoreThanSixteenMebibytesBeginsAnew) {
  const LogReset silent;
  answer(grant(std::string(2000000, 't')));
  const auto scope = [](int number) { return std::to_string(number); };
  for (int number = 0; number < 9; ++number) {
    client.getAccessToken(scope(number));
  }
  client.getAccessToken(scope(0));
  EXPECT_THAT(forms(), SizeIs(9)) << "all are kept";
  client.getAccessToken(scope(9));
  client.getAccessToken(scope(9));
  EXPECT_THAT(forms(), SizeIs(10)) << "the last one is kept";
  client.getAccessToken(scope(0));
  client.getAccessToken(scope(9));
  EXPECT_THAT(forms(), SizeIs(11)) << "the others are gone";
}

TEST_F(AccessTokenRequestTest, ScopesWithoutATokenCountAsWell) {
  const LogReset silent;
  client.getAccessToken("read");
  answer("{}");
  for (int number = 0; number < 16; ++number) {
    EXPECT_NE(failure(std::string(1024 * 1024, 's') + std::to_string(number)), "nothing");
  }
  EXPECT_EQ(client.getAccessToken("read"), "a token") << "a scope is counted when the next one comes";
  EXPECT_NE(failure("the next one"), "nothing");
  EXPECT_NE(failure("read"), "nothing");
}

TEST_F(AccessTokenRequestTest, TokenThatHasExpiredServesAgainWhenTheClockIsSetBack) {
  client.getAccessToken("read");
  answer(grant("another"));
  moveClock(seconds(7200));
  EXPECT_EQ(client.getAccessToken("write"), "another");
  moveClock(seconds(0));
  EXPECT_EQ(client.getAccessToken("read"), "a token");
}

TEST_F(AccessTokenRequestTest, FailureLeavesTheOtherScopesTokens) {
  client.getAccessToken("read");
  answer("", 500);
  EXPECT_NE(failure("write"), "nothing");
  EXPECT_EQ(client.getAccessToken("read"), "a token");
}

TEST_F(AccessTokenRequestTest, FailedScopeIsTriedAgain) {
  for (const char* bad : {"", "{}", R"({"access_token":"x"})"}) {
    answer(bad);
    EXPECT_NE(failure(), "nothing");
    EXPECT_NE(failure(), "nothing");
  }
  answer(grant("at last"));
  EXPECT_EQ(client.getAccessToken("read"), "at last");
  EXPECT_THAT(forms(), SizeIs(7));
}

TEST_F(AccessTokenRequestTest, FailedRenewalDropsTheStaleToken) {
  client.getAccessToken("read");
  moveClock(seconds(3590));
  answer("", 500);
  EXPECT_NE(failure(), "nothing");
  moveClock(seconds(0));
  EXPECT_NE(failure(), "nothing");
}

TEST_F(AccessTokenRequestTest, RequestAccessTokenReplacesAValidToken) {
  client.getAccessToken("read");
  answer(grant("new"));
  client.requestAccessToken("read");
  EXPECT_EQ(client.getAccessToken("read"), "new");
}

TEST_F(AccessTokenRequestTest, FailedRequestAccessTokenDropsAValidToken) {
  client.getAccessToken("read");
  answer("", 500);
  EXPECT_NE(thrownBy([&] { client.requestAccessToken("read"); }), "nothing");
  answer(grant("new"));
  EXPECT_EQ(client.getAccessToken("read"), "new");
}

TEST_F(AccessTokenRequestTest, FailedLookupIsTriedAgainAndASuccessfulOneIsNot) {
  server.on("/openid", HttpReply{503});
  const std::string unavailable =
      "SsoException: Couldn't retrieve SSO token endpoint from " + configurationUrl + ". Return code: 503";
  EXPECT_EQ(failure(), unavailable);
  EXPECT_EQ(failure(), unavailable);
  useEndpoint(server.url("/token"));
  EXPECT_EQ(failure("read"), "nothing");
  EXPECT_EQ(failure("write"), "nothing");
  EXPECT_THAT(server.requestLines(),
              ElementsAre("GET /openid", "GET /openid", "GET /openid", "POST /token", "POST /token"));
}

TEST_F(AccessTokenRequestTest, FailedAssertionPassesOutBeforeAnythingIsSent) {
  const LogCapture log(LOG_LEVEL_INFO);
  provider.privateKeySource = ScriptedProvider::fails("key locked");
  EXPECT_EQ(failure(), "KCException: key locked");
  EXPECT_THAT(server.requestLines(), ElementsAre("GET /openid"));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AccessTokenRequestTest, RedirectIsNotFollowed) {
  for (const int status : {301, 302, 303, 307, 308}) {
    server.on("/token", HttpReply{status, grant("x"), {{"Location", server.url("/elsewhere")}}});
    const std::string code = "SsoClient: Curl response code: " + std::to_string(status);
    const LogCapture log(LOG_LEVEL_ERROR);
    EXPECT_EQ(failure(), "SsoException: Couldn't create access token. Curl returned: ");
    EXPECT_THAT(log.lines(), ElementsAre(code));
    EXPECT_EQ(server.requestLines().back(), "POST /token");
  }
}

TEST_F(AccessTokenRequestTest, EveryStatusBut200To299Fails) {
  failure();
  for (const int status : {300, 400, 401, 404, 500, 503}) {
    answer(grant("refused"), status);
    const std::string code = "SsoClient: Curl response code: " + std::to_string(status);
    const LogCapture log;
    EXPECT_EQ(failure("write"), "SsoException: Couldn't create access token. Curl returned: ");
    EXPECT_THAT(log.lines(), ElementsAre("SsoClient: Requesting SSO access token.", "SsoClient: Scope: write", code,
                                         "SsoClient: Curl result: " + grant("refused"), code));
  }
}

TEST_F(AccessTokenRequestTest, EveryStatusFrom200To299IsTaken) {
  for (const int status : {200, 201, 299}) {
    answer(grant("taken"), status);
    EXPECT_EQ(client.getAccessToken(std::to_string(status)), "taken");
  }
}

TEST_F(AccessTokenRequestTest, FailedTransferNamesTheConfigurationUrl) {
  const ClosedPort closed;
  RawServer raw;
  const struct {
    std::string endpoint;
    Script script;
    CURLcode code;
  } rows[] = {
      {"http://127.0.0.1:" + std::to_string(closed.port()) + "/", {}, CURLE_COULDNT_CONNECT},
      {"nothing://127.0.0.1/", {}, CURLE_UNSUPPORTED_PROTOCOL},
      {raw.url("/token"), {}, CURLE_GOT_NOTHING},
      {raw.url("/token"), {reset()}, CURLE_RECV_ERROR},
      {raw.url("/token"), {send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + grant("x"))}, CURLE_PARTIAL_FILE},
      {raw.url("/token"), {send("garbage\r\n\r\n")}, CURLE_UNSUPPORTED_PROTOCOL},
  };
  for (const auto& row : rows) {
    useEndpoint(row.endpoint);
    raw.answer(row.script);
    SsoClient another(configurationUrl, &provider);
    another.retrieveTokenEndpoint();
    const std::string error = curl_easy_strerror(row.code);
    const LogCapture log;
    EXPECT_EQ(thrownBy([&] { another.getAccessToken("read"); }),
              "SsoException: Couldn't create access token from " + configurationUrl + ". Curl failed, error: " + error);
    EXPECT_THAT(log.lines(), ElementsAre("SsoClient: Requesting SSO access token.", "SsoClient: Scope: read",
                                         "SsoClient: curl_easy_perform() failed: " + error));
  }
}

TEST_F(AccessTokenRequestTest, AnswerOfMoreThanTheLimitEndsTheTransfer) {
  const std::string body = grant("a token");
  answer(body + std::string(velo::ssoService::MAX_RESPONSE_BYTES - body.size(), ' '));
  EXPECT_EQ(failure(), "nothing");
  answer(body + std::string(velo::ssoService::MAX_RESPONSE_BYTES - body.size() + 1, ' '));
  EXPECT_EQ(failure("write"), "SsoException: Couldn't create access token from " + configurationUrl +
                                  ". Curl failed, error: " + curl_easy_strerror(CURLE_WRITE_ERROR));
}

TEST_F(AccessTokenRequestTest, AnswerWithoutAUsableTokenIsRefused) {
  failure("lookup");
  const auto expires = [](const char* text) {
    return "AccessToken: Access token expires in " + std::string(text) + " seconds";
  };
  const std::string hasToken = "AccessToken: Access token: ";
  const std::string noExpiry = "AccessToken: No token expiration time found";
  const struct {
    std::string body;
    std::vector<std::string> lines;
  } rows[] = {
      {R"({"expires_in":3600})", {R"(AccessToken: No access_token found in {"expires_in":3600})", expires("3600")}},
      {R"({"access_token":"x"})", {hasToken, noExpiry}},
      {grant("x", R"("3600")"), {hasToken, noExpiry}},
      {grant("x", "10"), {hasToken, expires("10")}},
      {grant("x", "19.9"), {hasToken, expires("19")}},
      {grant("x", "-1"), {hasToken, expires("-1")}},
      {"oops", {"AccessToken: Error processing toke json: oops Error:Input is not a valid object"}},
      {"", {"AccessToken: Error processing toke json:  Error:Input is not a valid object"}},
      {grant("x", "2147483648"),
       {hasToken, "AccessToken: Error processing toke json: " + grant("x", "2147483648") + " Error:stoi"}},
  };
  for (const auto& row : rows) {
    answer(row.body);
    std::vector<std::string> expected = {"SsoClient: Requesting SSO access token.", "SsoClient: Scope: read",
                                         "SsoClient: Curl response code: 200", "SsoClient: Curl result: " + row.body};
    expected.insert(expected.end(), row.lines.begin(), row.lines.end());
    expected.emplace_back("SsoClient: Not a valid JSON.");
    const LogCapture log;
    EXPECT_EQ(failure(), "SsoException: Couldn't create valid access token") << row.body;
    EXPECT_THAT(log.lines(), ElementsAreArray(expected));
  }
}

TEST_F(AccessTokenRequestTest, LifetimeOfTwentySecondsIsTheShortest) {
  const std::string ofTwenty = withinOneSecond([&] {
    answer(grant("x", "20"));
    return failure("20");
  });
  EXPECT_EQ(ofTwenty, "nothing");
  answer(grant("x", "19"));
  EXPECT_EQ(failure("19"), "SsoException: Couldn't create valid access token");
}

TEST_F(AccessTokenRequestTest, ExpiryIsRightAcrossTheEndOf32BitTime) {
  constexpr std::int64_t END = std::int64_t{1} << 31;
  const std::int64_t offset = END - 100 - velo::ssoService::currentSeconds();
  moveClock(seconds(offset));
  EXPECT_EQ(client.getAccessToken("read"), "a token");
  answer(grant("another token"));
  moveClock(seconds(offset + 3500));
  EXPECT_EQ(client.getAccessToken("read"), "a token");
  moveClock(seconds(offset + 3600));
  EXPECT_EQ(client.getAccessToken("read"), "another token");
}

TEST_F(AccessTokenRequestTest, NoDescriptorStaysOpen) {
  const ClosedPort closed;
  RawServer raw;
  failure();
  const OpenDescriptors open;
  for (const std::string& endpoint : {server.url("/token"), server.url("/missing"), raw.url("/"),
                                      "http://127.0.0.1:" + std::to_string(closed.port())}) {
    useEndpoint(endpoint);
    thrownBy([&] { SsoClient(configurationUrl, &provider).getAccessToken("read"); });
    EXPECT_TRUE(open.areAsBefore()) << endpoint;
  }
}

TEST_F(AccessTokenRequestTest, Levels) {
  const ClosedPort closed;
  const std::string closedUrl = "http://127.0.0.1:" + std::to_string(closed.port());
  server.on("/denied", HttpReply{401});
  server.on("/short", HttpReply{200, grant("x", "10")});
  const struct {
    int level;
    std::string message;
    std::string endpoint;
  } rows[] = {
      {LOG_LEVEL_INFO, "Requesting SSO access token.", server.url("/token")},
      {LOG_LEVEL_DEBUG, "Scope: read", server.url("/token")},
      {LOG_LEVEL_ERROR, std::string("curl_easy_perform() failed: ") + curl_easy_strerror(CURLE_COULDNT_CONNECT),
       closedUrl},
      {LOG_LEVEL_DEBUG, "Curl result: " + grant("a token"), server.url("/token")},
      {LOG_LEVEL_ERROR, "Curl response code: 401", server.url("/denied")},
      {LOG_LEVEL_ERROR, "Not a valid JSON.", server.url("/short")},
  };
  for (const auto& row : rows) {
    useEndpoint(row.endpoint);
    EXPECT_TRUE(isLoggedAt(row.level, "SsoClient: " + row.message,
                           [&] { SsoClient(configurationUrl, &provider).getAccessToken("read"); }));
  }
}

TEST_F(AccessTokenRequestTest, ResponseCodeOfAGrantIsLoggedAtDebug) {
  client.retrieveTokenEndpoint();
  EXPECT_TRUE(
      isLoggedAt(LOG_LEVEL_DEBUG, "SsoClient: Curl response code: 200", [&] { client.requestAccessToken("read"); }));
}

}  // namespace
}  // namespace test
