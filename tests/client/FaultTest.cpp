// Servers that break off, announce what they do not send, or send something else. Each call ends at once, long before
// its limit, and leaves no descriptor behind.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "client/Calls.h"
#include "support/FrameServer.h"
#include "support/KeyService.h"  // its frames are the same
#include "support/OpenDescriptors.h"

namespace {

using test::drip;
using test::frame;
using test::lengthPrefix;
using test::Outcome;
using test::Request;
using test::reset;
using test::Script;
using test::send;
using test::silence;
using test::stream;

constexpr unsigned long MEBIBYTE = 1024 * 1024;
const Outcome CLOSED = test::only(SSOCLIENT_CONNECTION_CLOSED);
const Outcome MALFORMED = test::only(SSOCLIENT_MALFORMED_REPLY);

class ClientFault : public testing::Test {
 protected:
  void TearDown() override { EXPECT_TRUE(descriptors.areAsBefore()); }

  void expect(const Outcome& expected, Request request, const Script& script, const std::string& what) {
    server.answer(script);
    Outcome outcome = MALFORMED;
    const auto took = test::durationOf([&] { outcome = test::call(request, server.port()); });
    EXPECT_EQ(outcome, expected) << request << ": " << what;
    EXPECT_LT(took, test::MARGIN) << request << ": " << what;
  }

  void expectOfAll(const Outcome& expected, const Script& script, const std::string& what) {
    for (const Request request : test::ALL_REQUESTS) {
      expect(expected, request, script, what);
    }
  }

  test::FrameServer server;
  test::OpenDescriptors descriptors;
};

TEST_F(ClientFault, ClosedAtEveryByteOfTheReply) {
  for (const Request request : test::ALL_REQUESTS) {
    const std::string whole = frame(test::goodReply(request));
    for (std::size_t length = 0; length < whole.size(); ++length) {
      expect(CLOSED, request, {send(whole.substr(0, length))}, std::to_string(length));
    }
    expect(test::goodOutcome(request), request, {send(whole)}, "whole");
  }
}

TEST_F(ClientFault, ResetAtEveryByteOfTheReply) {
  for (const Request request : test::ALL_REQUESTS) {
    const std::string whole = frame(test::goodReply(request));
    for (std::size_t length = 0; length < whole.size(); ++length) {
      expect(CLOSED, request, {send(whole.substr(0, length)), reset()}, std::to_string(length));
    }
  }
}

TEST_F(ClientFault, LongReplyCutShort) {
  const std::string half(MEBIBYTE / 2, 'x');
  expectOfAll(CLOSED, {send(lengthPrefix(MEBIBYTE) + half)}, "closed");
  expectOfAll(CLOSED, {send(lengthPrefix(MEBIBYTE) + half), reset()}, "reset");
}

TEST_F(ClientFault, AnnouncedLengthOverTheLimitIsMalformedAtOnce) {
  for (const unsigned long length : {MEBIBYTE + 1, MEBIBYTE + 2, 0x7fffffffUL, 0x80000000UL, 0x80000001UL, 0xff000000UL,
                                     0xfffffffeUL, 0xffffffffUL}) {
    expectOfAll(MALFORMED, {send(lengthPrefix(length)), silence()}, std::to_string(length));
    expectOfAll(MALFORMED, {send(lengthPrefix(length) + "{\"status\"")}, std::to_string(length));
  }
}

TEST_F(ClientFault, LongestReplyIsTaken) {
  EXPECT_EQ(SSOCLIENT_MAX_REPLY_BYTES, MEBIBYTE);
  const std::string begin = R"({"status":"ok","certificate_id":")";
  const std::string id(MEBIBYTE - begin.size() - 2, 'x');
  const std::string payload = begin + id + "\"}";
  ASSERT_EQ(payload.size(), MEBIBYTE);
  expect(test::ok(id), Request::CERTIFICATE_ID, {send(frame(payload))}, "a mebibyte");
  expect(MALFORMED, Request::CERTIFICATE_ID, {send(frame(payload + " "))}, "a byte more");
}

TEST_F(ClientFault, FramesOfSomethingElseAreMalformed) {
  for (const std::string& payload :
       {std::string(), std::string(" "), std::string("garbage"), std::string(1, '\0'), std::string("[]"),
        std::string("{}"), std::string("\xff\xfe\xfd"), std::string(MEBIBYTE, '['), std::string(MEBIBYTE, '\0'),
        std::string(MEBIBYTE, ' '), frame(R"({"status":"ok"})"), std::string(R"({"status":"ok"}x)"),
        std::string(R"({"status":"maybe"})")}) {
    expectOfAll(MALFORMED, {send(frame(payload)), silence()}, payload.substr(0, 40));
  }
}

TEST_F(ClientFault, OtherProtocolsAreMalformed) {
  for (const std::string& bytes :
       {std::string("HTTP/1.1 400 Bad Request\r\n\r\n"), std::string(R"({"status":"ok"})"),
        std::string("\x0f\0\0\0{\"status\":\"ok\"}", 19), std::string("SSH-2.0-x\r\n"), std::string(100000, '\xff')}) {
    expectOfAll(MALFORMED, {send(bytes), silence()}, bytes.substr(0, 40));
  }
}

TEST_F(ClientFault, ReplyToAnotherRequestIsMalformed) {
  for (const Request asked : test::ALL_REQUESTS) {
    for (const Request answered : test::ALL_REQUESTS) {
      const bool fits = asked == answered || asked == Request::RESET;  // a reset has no result of its own
      const Outcome whole = asked == Request::RESET ? test::only(SSOCLIENT_OK) : test::goodOutcome(asked);
      expect(fits ? whole : MALFORMED, asked, {send(frame(test::goodReply(answered)))}, test::goodReply(answered));
    }
  }
}

TEST_F(ClientFault, BytesBehindTheReplyAreIgnored) {
  for (const Request request : test::ALL_REQUESTS) {
    const std::string reply = frame(test::goodReply(request));
    for (const std::string& surplus :
         {std::string("x"), std::string("\0\0\0\5", 4), reply, std::string(4 * MEBIBYTE, 'x')}) {
      expect(test::goodOutcome(request), request, {send(reply + surplus)}, "surplus");
      expect(test::goodOutcome(request), request, {send(reply + surplus), silence()}, "surplus, left open");
      expect(test::goodOutcome(request), request, {send(reply), send(surplus), reset()}, "surplus, then reset");
    }
  }
}

TEST_F(ClientFault, ReplyMayComeInAnyPieces) {
  for (const Request request : test::ALL_REQUESTS) {
    const std::string reply = frame(test::goodReply(request));
    expect(test::goodOutcome(request), request, {send(reply), silence()}, "one piece, left open");
    expect(test::goodOutcome(request), request, {drip(reply)}, "slow single bytes");
    expect(test::goodOutcome(request), request, {stream(reply)}, "fast single bytes");
    expect(test::goodOutcome(request), request, {send(reply.substr(0, 4)), drip(reply.substr(4))}, "length first");
    expect(test::goodOutcome(request), request, {drip(reply.substr(0, 3)), send(reply.substr(3))}, "rest last");
  }
}

TEST(ClientReplyBeforeTheRequest, IsTaken) {
  test::ScriptedServer hasty([](const std::string&) { return true; });
  for (const Request request : test::ALL_REQUESTS) {
    hasty.answer({send(frame(test::goodReply(request)))});
    EXPECT_EQ(test::call(request, hasty.port()), test::goodOutcome(request));
  }
}

}  // namespace
