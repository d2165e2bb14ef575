// What the client sends, byte by byte.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "client/Calls.h"
#include "json/json.h"
#include "support/FrameServer.h"
#include "support/KeyService.h"  // its frames are the same
#include "util/Frames.h"

namespace {

using test::Outcome;
using test::Request;

class ClientRequest : public testing::Test {
 protected:
  /// All that the server has got from the client for this scope, which is answered with a token.
  std::string sentFor(const std::string& scope) {
    const Outcome outcome = test::outcomeOf([&](char** text) {
      return ssoclient_get_token(server.port(), scope.c_str(), static_cast<int>(test::LONG_LIMIT.count()), text);
    });
    EXPECT_EQ(outcome, test::ok("t")) << scope;
    return server.requests().back();
  }

  test::FrameServer server;
};

TEST_F(ClientRequest, IsOneFrameWithTheObjectOfItsKind) {
  struct Row {
    Request request;
    std::string bytes;
  };
  using namespace std::string_literals;
  for (const Row& row : {Row{Request::TOKEN, "\0\0\0\x23{\"request\":\"token\",\"scope\":\"scope\"}"s},
                         Row{Request::DATA, "\0\0\0\x12{\"request\":\"data\"}"s},
                         Row{Request::CERTIFICATE_ID, "\0\0\0\x1c{\"request\":\"certificate_id\"}"s},
                         Row{Request::RESET, "\0\0\0\x13{\"request\":\"reset\"}"s}}) {
    server.reply(test::goodReply(row.request));
    EXPECT_EQ(test::call(row.request, server.port()), test::goodOutcome(row.request));
    EXPECT_EQ(server.requests().back(), row.bytes);
  }
}

TEST_F(ClientRequest, ScopeIsTheTextOfAJsonString) {
  server.reply(test::goodReply(Request::TOKEN));
  struct Row {
    std::string scope;
    std::string written;
  };
  for (const Row& row :
       std::vector<Row>{{"a", "a"},
                        {" ", " "},
                        {"telemetry%20update", "telemetry%20update"},
                        {"\"", "\\\""},
                        {"\\", "\\\\"},
                        {"\\\"", "\\\\\\\""},
                        {"\\n", "\\\\n"},
                        {"\"}", "\\\"}"},
                        {"https://a/b?c=d&e=f", "https://a/b?c=d&e=f"},
                        {"'<>{}[]:,~!", "'<>{}[]:,~!"},
                        {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
                        {"\x80\xfe\xff", "\x80\xfe\xff"},
                        {std::string(4096, 'x'), std::string(4096, 'x')},
                        {std::string(4096, '\xff'), std::string(4096, '\xff')}}) {
    const std::string payload = R"({"request":"token","scope":")" + row.written + "\"}";
    EXPECT_TRUE(sentFor(row.scope) == test::frame(payload)) << row.scope;
    EXPECT_TRUE(velo::ssoService::makeFrame(payload) == test::frame(payload));
  }
}

TEST_F(ClientRequest, LongestScopeMayBeOfWhatNeedsEscapes) {
  server.reply(test::goodReply(Request::TOKEN));
  for (const std::string escaped : {"\\\"", "\\\\"}) {
    std::string written;
    for (int count = 0; count < SSOCLIENT_MAX_SCOPE_BYTES; ++count) {
      written += escaped;
    }
    EXPECT_TRUE(sentFor(std::string(SSOCLIENT_MAX_SCOPE_BYTES, escaped[1])) ==
                test::frame(R"({"request":"token","scope":")" + written + "\"}"));
  }
}

TEST_F(ClientRequest, ServiceReadsEveryScopeAsItIs) {
  server.reply(test::goodReply(Request::TOKEN));
  std::string every;
  for (int byte = 0x20; byte <= 0xff; ++byte) {
    every += byte == 0x7f ? "" : std::string(1, static_cast<char>(byte));
  }
  for (const std::string& scope : {every, every + every, every + "\\", every + "\""}) {
    const json::jobject request = json::jobject::parse(sentFor(scope).substr(4));
    EXPECT_EQ(request.list_keys(), (std::vector<std::string>{"request", "scope"}));
    EXPECT_EQ(request["request"].as_string(), "token");
    EXPECT_EQ(request["scope"].as_string(), scope);
  }
}

TEST_F(ClientRequest, EachCallHasAConnectionOfItsOwn) {
  server.reply(R"({"status":"ok"})");
  for (std::size_t count = 1; count <= 5; ++count) {
    EXPECT_EQ(test::call(Request::RESET, server.port()), test::only(SSOCLIENT_OK));
    EXPECT_EQ(server.requests().size(), count);
  }
}

}  // namespace
