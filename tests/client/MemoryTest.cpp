// What is left in memory that the library frees, and what happens when there is none.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "client/Calls.h"
#include "client/WatchedCalls.h"
#include "support/FrameServer.h"
#include "support/KeyService.h"  // its frames are the same
#include "support/OpenDescriptors.h"

namespace {

using test::Outcome;
using test::Request;
using test::Script;
using test::send;

const std::string SECRET = "c2VjcmV0";
const std::string TOKEN_BEGIN = R"({"status":"ok","token":"before )" + SECRET + " behind";

/// The freed pieces of memory, and those among them with the secret.
class FreedMemory {
 public:
  FreedMemory() {
    calls.beforeFree = [this](const std::string& bytes) {
      ++pieces;
      tellTale += bytes.find(SECRET) != std::string::npos ? 1 : 0;
    };
  }

  int pieces = 0;
  int tellTale = 0;

 private:
  test::WatchedCalls calls;
};

TEST(ClientMemory, SecretIsSeenWhenItIsFreedUnwiped) {
  const FreedMemory freed;
  char* volatile copy = ::strdup(SECRET.c_str());  // volatile: otherwise copy and free may be left out
  std::free(copy);
  EXPECT_EQ(freed.pieces, 1);
  EXPECT_EQ(freed.tellTale, 1);
}

TEST(ClientMemory, FreeWipesTheText) {
  test::FrameServer server;
  server.reply(R"({"status":"ok","certificate_id":")" + SECRET + "\"}");
  char* text = nullptr;
  ASSERT_EQ(ssoclient_get_certificate_id(server.port(), 20000, &text), SSOCLIENT_OK);
  ASSERT_EQ(text, SECRET);
  test::WatchedCalls calls;
  std::string freed;
  calls.beforeFree = [&](const std::string& bytes) { freed = bytes; };
  ssoclient_free(text);
  ASSERT_GT(freed.size(), SECRET.size());
  EXPECT_EQ(freed.substr(0, SECRET.size() + 1), std::string(SECRET.size() + 1, '\0'));
}

TEST(ClientMemory, FreeTakesANullPointer) {
  const FreedMemory freed;
  ssoclient_free(nullptr);
  EXPECT_EQ(freed.pieces, 0);
}

TEST(ClientMemory, NothingOfAReplyIsFreedUnwiped) {
  struct Row {
    Request request;
    Script script;
    ssoclient_status status;
  };
  const auto reply = [](const std::string& payload) { return Script{send(test::frame(payload))}; };
  const std::string data = R"({"status":"ok","discovery_data":{"a":")" + SECRET + "\"}";
  const std::string message = R"({"status":"error","message":")" + SECRET;
  test::FrameServer server;
  for (const Row& row :
       {Row{Request::TOKEN, reply(TOKEN_BEGIN + "\"}"), SSOCLIENT_OK},
        Row{Request::TOKEN, reply(TOKEN_BEGIN + "\\u0041\\n\"}"), SSOCLIENT_OK},
        Row{Request::DATA, reply(data + "}"), SSOCLIENT_OK},
        Row{Request::DATA, reply(message + "\"}"), SSOCLIENT_REFUSED},
        Row{Request::RESET, reply(TOKEN_BEGIN + "\"}"), SSOCLIENT_OK},
        Row{Request::TOKEN, reply(TOKEN_BEGIN + "\\ud800\"}"), SSOCLIENT_MALFORMED_REPLY},
        Row{Request::TOKEN, reply(TOKEN_BEGIN + "\"}}"), SSOCLIENT_MALFORMED_REPLY},
        Row{Request::TOKEN, reply(TOKEN_BEGIN + "\",\"token\":\"\"}"), SSOCLIENT_MALFORMED_REPLY},
        Row{Request::TOKEN, reply(TOKEN_BEGIN + '\0' + "\"}"), SSOCLIENT_MALFORMED_REPLY},
        Row{Request::TOKEN, reply(TOKEN_BEGIN), SSOCLIENT_MALFORMED_REPLY},
        Row{Request::TOKEN, reply(data + "}"), SSOCLIENT_MALFORMED_REPLY},
        Row{Request::TOKEN, {send(test::lengthPrefix(1000) + TOKEN_BEGIN)}, SSOCLIENT_CONNECTION_CLOSED},
        Row{Request::TOKEN, {send(test::lengthPrefix(1000) + TOKEN_BEGIN), test::silence()}, SSOCLIENT_TIMED_OUT}}) {
    server.answer(row.script);
    const FreedMemory freed;
    const auto limit = row.status == SSOCLIENT_TIMED_OUT ? test::SHORT_LIMIT : test::LONG_LIMIT;
    EXPECT_EQ(test::call(row.request, server.port(), limit).status, row.status);
    EXPECT_EQ(freed.tellTale, 0) << row.script.front().bytes;
    EXPECT_GE(freed.pieces, 2) << row.script.front().bytes;
  }
}

/// Each allocation of a call fails once, until none is left to fail.
TEST(ClientMemory, EveryFailedAllocationIsTold) {
  struct Row {
    Request request;
    std::string payload;
    Outcome expected;
  };
  test::FrameServer server;
  const test::OpenDescriptors descriptors;
  const auto callFailing = [&](Request request, int allocation) {
    test::WatchedCalls calls;
    calls.mayAllocate = [&] { return allocation-- != 0; };
    return test::call(request, server.port());
  };
  for (const Row& row : {Row{Request::TOKEN, R"({"status":"ok","token":"t"})", test::ok("t")},
                         Row{Request::DATA, R"({"status":"ok","discovery_data":{}})", test::ok("{}")},
                         Row{Request::CERTIFICATE_ID, R"({"status":"ok","certificate_id":"i"})", test::ok("i")},
                         Row{Request::RESET, R"({"status":"error","message":"m"})", test::refused("m")}}) {
    server.reply(row.payload);
    for (int allocation = 0; allocation < 4; ++allocation) {  // request, reply, parser, text
      EXPECT_EQ(callFailing(row.request, allocation), test::only(SSOCLIENT_OUT_OF_MEMORY)) << allocation;
    }
    EXPECT_EQ(callFailing(row.request, 4), row.expected);
  }
  EXPECT_TRUE(descriptors.areAsBefore());
}

}  // namespace
