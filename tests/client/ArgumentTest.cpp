// Arguments out of their range: nothing is sent, and there is no text.

#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "client/Calls.h"
#include "support/FrameServer.h"

namespace {

using test::call;
using test::Outcome;
using test::Request;

const Outcome INVALID = test::only(SSOCLIENT_INVALID_ARGUMENT);

class ClientArgument : public testing::Test {
 protected:
  Outcome tokenFor(const char* scope) {
    return test::outcomeOf([&](char** text) { return ssoclient_get_token(server.port(), scope, TIMEOUT, text); });
  }

  /// The server, which takes connections in their order, has got a connection from this call and none before.
  void expectNothingWasSent() {
    server.reply(test::goodReply(Request::TOKEN));
    EXPECT_EQ(tokenFor("scope"), test::ok("t"));
    EXPECT_EQ(server.requests().size(), 1U);
  }

  static constexpr int TIMEOUT = 20000;
  test::FrameServer server;
};

TEST_F(ClientArgument, PortIsFrom1To65535) {
  // What would be the server's port in 16 bits included.
  for (const int port :
       {0, -1, 65536, 65537, 100000, INT_MIN, INT_MAX, server.port() + 65536, server.port() - 65536, -server.port()}) {
    for (const Request request : test::ALL_REQUESTS) {
      EXPECT_EQ(call(request, port), INVALID) << port << " " << request;
    }
  }
  expectNothingWasSent();
}

TEST_F(ClientArgument, TimeoutIsPositive) {
  for (const int timeout : {0, -1, -1000, INT_MIN}) {
    for (const Request request : test::ALL_REQUESTS) {
      EXPECT_EQ(call(request, server.port(), std::chrono::milliseconds(timeout)), INVALID) << timeout << " " << request;
    }
  }
  expectNothingWasSent();
}

TEST_F(ClientArgument, TimeoutMayBeAsLongAsAnIntHolds) {
  for (const Request request : test::ALL_REQUESTS) {
    server.reply(test::goodReply(request));
    EXPECT_EQ(call(request, server.port(), std::chrono::milliseconds(INT_MAX)), test::goodOutcome(request));
  }
}

TEST_F(ClientArgument, ScopeHas1To4096Bytes) {
  EXPECT_EQ(SSOCLIENT_MAX_SCOPE_BYTES, 4096);
  EXPECT_EQ(tokenFor(nullptr), INVALID);
  EXPECT_EQ(tokenFor(""), INVALID);
  for (const std::size_t length : {4097U, 4098U, 8192U, 8193U, 1000000U}) {
    for (const char byte : {'x', '"', '\\', '\xff'}) {
      EXPECT_EQ(tokenFor(std::string(length, byte).c_str()), INVALID) << length << " " << byte;
    }
  }
  expectNothingWasSent();
}

TEST_F(ClientArgument, ScopeHasNoControlCharacters) {
  for (int byte = 1; byte < 0x80; byte = byte == 0x1f ? 0x7f : byte + 1) {
    const std::string control(1, static_cast<char>(byte));
    for (const std::string& scope :
         {control, "a" + control, control + "a", "a" + control + "a", std::string(4095, 'a') + control}) {
      EXPECT_EQ(tokenFor(scope.c_str()), INVALID) << byte;
    }
  }
  expectNothingWasSent();
}

TEST_F(ClientArgument, TextIsSomewhereToPutIt) {
  EXPECT_EQ(ssoclient_get_token(server.port(), "scope", TIMEOUT, nullptr), SSOCLIENT_INVALID_ARGUMENT);
  EXPECT_EQ(ssoclient_get_token(server.port(), nullptr, TIMEOUT, nullptr), SSOCLIENT_INVALID_ARGUMENT);
  EXPECT_EQ(ssoclient_get_discovery_data(server.port(), TIMEOUT, nullptr), SSOCLIENT_INVALID_ARGUMENT);
  EXPECT_EQ(ssoclient_get_certificate_id(server.port(), TIMEOUT, nullptr), SSOCLIENT_INVALID_ARGUMENT);
  EXPECT_EQ(ssoclient_reset(server.port(), TIMEOUT, nullptr), SSOCLIENT_INVALID_ARGUMENT);
  EXPECT_EQ(ssoclient_reset(0, 0, nullptr), SSOCLIENT_INVALID_ARGUMENT);
  expectNothingWasSent();
}

}  // namespace
