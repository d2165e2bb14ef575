#include <gtest/gtest.h>

#include <string>

#include "support/DeadPorts.h"
#include "support/HttpServer.h"
#include "support/RawServer.h"
#include "util/HttpExchange.h"

namespace {

using namespace velo::ssoService;

std::size_t append(const std::string& bytes, std::size_t size, std::string& body) {
  std::string data = bytes;
  return appendToString(data.data(), size, bytes.size() / size, &body);
}

TEST(AppendToString, AppendsSizeTimesCountBytes) {
  std::string body = "begun ";
  EXPECT_EQ(append("abcdef", 1, body), 6U);
  EXPECT_EQ(append("ghijkl", 2, body), 6U);
  EXPECT_EQ(append("mnopqr", 6, body), 6U);
  EXPECT_EQ(append(std::string("\0\xff", 2), 1, body), 2U);
  EXPECT_EQ(append("", 1, body), 0U);
  EXPECT_EQ(body, std::string("begun abcdefghijklmnopqr\0\xff", 26));
}

TEST(AppendToString, TakesNoMoreThanTheLongestBody) {
  std::string body(MAX_RESPONSE_BYTES - 4, 'x');
  EXPECT_EQ(append("abcde", 1, body), 0U);
  EXPECT_EQ(body.size(), MAX_RESPONSE_BYTES - 4);
  EXPECT_EQ(append("abcd", 1, body), 4U);
  EXPECT_EQ(body.size(), MAX_RESPONSE_BYTES);
  EXPECT_EQ(append("a", 1, body), 0U);
  EXPECT_EQ(append("", 1, body), 0U);
  EXPECT_EQ(body.size(), MAX_RESPONSE_BYTES);
}

TEST(HttpStatus, SuccessIs200To299) {
  for (const long status : {200L, 201L, 204L, 250L, 299L}) {
    EXPECT_TRUE(isSuccess(status)) << status;
  }
  for (const long status : {-1L, 0L, 100L, 199L, 300L, 302L, 404L, 500L}) {
    EXPECT_FALSE(isSuccess(status)) << status;
  }
}

class HttpExchanges : public testing::Test {
 protected:
  /// Makes the request that the exchange is set up for; the failure's text, or "".
  std::string perform(const std::string& url) {
    exchange.set(CURLOPT_URL, url.c_str());
    exchange.collectBody(body);
    const char* failure = exchange.perform();
    return failure != nullptr ? failure : "";
  }

  HttpLibrary library;
  HttpExchange exchange;
  std::string body = "old text";
};

TEST_F(HttpExchanges, ResolverIsAsynchronous) {
  // Without it a time limit would need signals, which a program of several threads cannot have.
  EXPECT_NE(curl_version_info(CURLVERSION_NOW)->features & CURL_VERSION_ASYNCHDNS, 0);
}

TEST_F(HttpExchanges, GiveBodyAndStatus) {
  test::HttpServer server;
  server.on("/found", test::HttpReply{200, std::string("a\0b", 3)});
  server.on("/gone", test::HttpReply{410, "gone"});
  ASSERT_TRUE(exchange.isReady());
  EXPECT_EQ(exchange.status(), 0);
  EXPECT_EQ(perform(server.url("/found")), "");
  EXPECT_EQ(exchange.status(), 200);
  EXPECT_EQ(body, std::string("a\0b", 3));
  EXPECT_EQ(perform(server.url("/gone")), "");
  EXPECT_EQ(exchange.status(), 410);
  EXPECT_EQ(body, "gone");
}

TEST_F(HttpExchanges, SendTheirHeaders) {
  test::HttpServer server;
  server.on("/", test::HttpReply{});
  exchange.addHeader("X-First: one");
  exchange.addHeader("X-Second: two");
  exchange.setHeaders();
  EXPECT_EQ(perform(server.url("/")), "");
  ASSERT_EQ(server.requests().size(), 1U);
  EXPECT_EQ(server.requests()[0].header("x-first"), "one");
  EXPECT_EQ(server.requests()[0].header("x-second"), "two");
}

TEST_F(HttpExchanges, FailureIsLibcurlsText) {
  const test::ClosedPort closed;
  EXPECT_EQ(perform("http://127.0.0.1:" + std::to_string(closed.port()) + "/"),
            curl_easy_strerror(CURLE_COULDNT_CONNECT));
  EXPECT_EQ(body, "");
  EXPECT_EQ(exchange.status(), 0);
  EXPECT_EQ(perform("nonsense://127.0.0.1/"), curl_easy_strerror(CURLE_UNSUPPORTED_PROTOCOL));
}

TEST_F(HttpExchanges, LongestBodyIsTakenAndALongerOneFails) {
  test::RawServer server;
  server.answer({test::send(test::okReply(std::string(MAX_RESPONSE_BYTES, 'x')))});
  EXPECT_EQ(perform(server.url("/")), "");
  EXPECT_EQ(body.size(), MAX_RESPONSE_BYTES);
  server.answer({test::send(test::okReply(std::string(MAX_RESPONSE_BYTES + 1, 'x')))});
  EXPECT_EQ(perform(server.url("/")), curl_easy_strerror(CURLE_WRITE_ERROR));
  EXPECT_LE(body.size(), MAX_RESPONSE_BYTES);
}

}  // namespace
