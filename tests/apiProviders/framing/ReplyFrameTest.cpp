// How the reply's frame is written, to clients of all kinds.

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <future>
#include <new>

#include "apiProviders/framing/ApiLog.h"
#include "apiProviders/framing/ApiServer.h"
#include "apiProviders/framing/Echo.h"
#include "apiProviders/framing/FailingCalls.h"
#include "support/LogCapture.h"

namespace test {
namespace {

using namespace std::string_literals;

class ReplyFrameTest : public ::testing::Test {
 protected:
  LogCapture log;
  Echo echo;
  ApiServer server;
};

TEST_F(ReplyFrameTest, LengthOfFourBytesThenTheText) {
  const std::string hundred(100, 'r');
  echo.answer([hundred](const std::string&) { return hundred; });
  EXPECT_EQ(ask(server.port(), "x"), "\0\0\0\x64"s + hundred);
}

TEST_F(ReplyFrameTest, EveryLengthIsAnnouncedBigEndian) {
  struct {
    std::size_t length;
    std::string prefix;
  } const table[] = {{0, "\0\0\0\0"s},     {1, "\0\0\0\1"s},        {255, "\0\0\0\xff"s},     {256, "\0\0\1\0"s},
                     {65536, "\0\1\0\0"s}, {0x010203, "\0\1\2\3"s}, {0x01020304, "\1\2\3\4"s}};
  for (const auto& row : table) {
    SCOPED_TRACE(row.length);
    echo.answer([length = row.length](const std::string&) { return std::string(length, 'r'); });
    EXPECT_TRUE(ask(server.port(), "x") == row.prefix + std::string(row.length, 'r'));
  }
}

TEST_F(ReplyFrameTest, TextEndsAtItsFirstNul) {
  echo.answer([](const std::string&) { return "before\0after"s; });
  EXPECT_EQ(ask(server.port(), "x"), frame("before"));
}

TEST_F(ReplyFrameTest, SlowReaderGetsAllOfABigReply) {
  const std::string big(16 * 1024 * 1024, 'r');  // more than the sockets hold
  echo.answer([big](const std::string&) { return big; });
  ApiClient client(server.port());
  client.send(frame("x"));
  EXPECT_TRUE(client.receiveAll(1000) == frame(big));
}

TEST_F(ReplyFrameTest, SuccessLogsNothing) {
  ask(server.port(), "x");
  EXPECT_EQ(log.lines(), setupLines() + requestLines("x"));
}

TEST_F(ReplyFrameTest, ConnectionIsClosedAfterTheReply) {
  ApiClient client(server.port());
  client.send(frame("x"));
  EXPECT_EQ(client.receiveAll(), frame("x"));  // up to the connection's end
}

/// A client that is gone by the time its request is answered.
class GoneClientTest : public ReplyFrameTest {
 protected:
  void leaveWhileHandled(const std::function<void(ApiClient&)>& leave, const std::string& reply) {
    std::promise<void> left;
    echo.answer([reply, gone = left.get_future().share()](const std::string&) {
      gone.wait();
      return reply;
    });
    ApiClient client(server.port());
    client.send(frame("x"));
    EXPECT_TRUE(await([&] { return !echo.requests().empty(); }));
    leave(client);
    left.set_value();
    echo.answer([](const std::string& request) { return request; });
    EXPECT_EQ(ask(server.port(), "next"), frame("next"));
  }
};

TEST_F(GoneClientTest, ResetDuringTheRequestAbandonsTheReply) {
  leaveWhileHandled([](ApiClient& client) { client.reset(); }, "reply");
  EXPECT_EQ(log.lines(), setupLines() + requestLines("x") + apiLines({"SSO API write failed"}) + requestLines("next"));
}

TEST_F(GoneClientTest, CloseDuringTheRequestGoesUnnoticedWithAShortReply) {
  leaveWhileHandled([](ApiClient& client) { client.close(); }, "reply");
  EXPECT_EQ(log.lines(), setupLines() + requestLines("x") + requestLines("next"));
}

TEST_F(GoneClientTest, CloseDuringTheRequestAbandonsALongReply) {
  leaveWhileHandled([](ApiClient& client) { client.close(); }, std::string(16 * 1024 * 1024, 'r'));
  EXPECT_EQ(log.lines(), setupLines() + requestLines("x") + apiLines({"SSO API write failed"}) + requestLines("next"));
}

TEST_F(ReplyFrameTest, ClientThatLeavesInTheMiddleAbandonsTheReply) {
  echo.answer([](const std::string&) { return std::string(16 * 1024 * 1024, 'r'); });
  ApiClient client(server.port());
  client.send(frame("x"));
  EXPECT_EQ(client.receive(4), lengthPrefix(16 * 1024 * 1024));
  client.close();
  echo.answer([](const std::string& request) { return request; });
  EXPECT_EQ(ask(server.port(), "next"), frame("next"));
  EXPECT_EQ(log.lines(), setupLines() + requestLines("x") + apiLines({"SSO API write failed"}) + requestLines("next"));
}

/// Without the handler a signal would end the process.
TEST_F(GoneClientTest, NoSignalIsRaised) {
  static volatile std::sig_atomic_t raised = 0;
  raised = 0;
  const auto before = std::signal(SIGPIPE, [](int /*signal*/) { raised = raised + 1; });
  ApiClient client(server.port());
  client.reset();  // the read takes the reset, so the reply meets a connection that is already broken
  EXPECT_TRUE(await([&] { return log.contains(apiLines({"SSO API write failed"})[0]); }));
  leaveWhileHandled([](ApiClient& gone) { gone.close(); }, std::string(16 * 1024 * 1024, 'r'));
  std::signal(SIGPIPE, before);
  EXPECT_EQ(raised, 0);
}

TEST_F(ReplyFrameTest, ExceptionCostsOneClientItsReply) {
  echo.answer([](const std::string&) -> std::string { throw std::bad_alloc(); });
  EXPECT_EQ(ask(server.port(), "x"), "");
  echo.answer([](const std::string& request) { return request; });
  EXPECT_EQ(ask(server.port(), "next"), frame("next"));
  EXPECT_EQ(log.lines(), setupLines() + requestLines("x") +
                             apiLines({"SSO API request abandoned: "s + std::bad_alloc().what()}) +
                             requestLines("next"));
}

TEST_F(ReplyFrameTest, FailedWritesAbandonTheReply) {
  struct {
    int result;
    int reason;
    const char* message;
  } const table[] = {{0, 0, "SSO API connection closed while sending reply"},
                     {-1, EPIPE, "SSO API write failed"},
                     {-1, EINTR, "SSO API write failed"},
                     {-1, EAGAIN, "SSO API write failed"}};
  Lines expected = setupLines();
  for (const auto& row : table) {
    SCOPED_TRACE(std::string(row.message) + " " + std::to_string(row.reason));
    echo.answer([row](const std::string& request) {
      failNext(Call::SEND, row.result, row.reason);
      return request;
    });
    EXPECT_EQ(ask(server.port(), "x"), "");
    expected = expected + requestLines("x") + apiLines({row.message});
  }
  EXPECT_EQ(log.lines(), expected);
}

}  // namespace
}  // namespace test
