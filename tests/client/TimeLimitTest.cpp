// The time limit holds whatever the other side does: a call that has to wait returns when it is over, not before and
// not much later.

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "client/Calls.h"
#include "client/WatchedCalls.h"
#include "support/DeadPorts.h"
#include "support/FrameServer.h"
#include "support/KeyService.h"  // its frames are the same
#include "support/OpenDescriptors.h"

namespace {

using std::chrono::milliseconds;
using test::Request;
using test::Script;
using test::send;
using test::silence;

const test::Outcome TIMED_OUT = test::only(SSOCLIENT_TIMED_OUT);

void expectTimeOut(int port, Request request = Request::TOKEN, milliseconds limit = test::SHORT_LIMIT) {
  test::Outcome outcome = test::only(SSOCLIENT_OK);
  const auto took = test::durationOf([&] { outcome = test::call(request, port, limit); });
  EXPECT_EQ(outcome, TIMED_OUT) << request;
  EXPECT_GE(took, limit) << request;
  EXPECT_LT(took, limit + test::MARGIN) << request;
}

class ClientTimeLimit : public testing::Test {
 protected:
  void TearDown() override { EXPECT_TRUE(descriptors.areAsBefore()); }

  test::FrameServer server;
  test::OpenDescriptors descriptors;
};

TEST_F(ClientTimeLimit, EndsTheWaitForASilentServer) {
  server.answer({silence()});
  for (const Request request : test::ALL_REQUESTS) {
    expectTimeOut(server.port(), request);
  }
}

TEST_F(ClientTimeLimit, EndsTheWaitForTheRestOfAReply) {
  for (const std::string& begin : {test::lengthPrefix(20).substr(0, 3), test::lengthPrefix(20),
                                   test::lengthPrefix(20) + "{\"status\":", test::lengthPrefix(1024 * 1024)}) {
    server.answer({send(begin), silence()});
    expectTimeOut(server.port());
  }
}

TEST_F(ClientTimeLimit, EndsTheWaitForAConnection) {
  const test::StalledPort stalled;
  for (const Request request : test::ALL_REQUESTS) {
    expectTimeOut(stalled.port(), request);
  }
}

TEST_F(ClientTimeLimit, MayBeShort) {
  server.answer({silence()});
  const test::StalledPort stalled;
  for (const int limit : {1, 2, 10}) {
    expectTimeOut(server.port(), Request::DATA, milliseconds(limit));
    expectTimeOut(stalled.port(), Request::DATA, milliseconds(limit));
  }
}

TEST_F(ClientTimeLimit, MayBeSecondsAndAPart) {
  server.answer({silence()});
  expectTimeOut(server.port(), Request::RESET, milliseconds(1050));
}

TEST_F(ClientTimeLimit, IsForAllPiecesOfAReplyTogether) {
  Script slow;
  for (const char byte : test::frame(test::goodReply(Request::TOKEN))) {
    slow.push_back(test::pause(test::SHORT_LIMIT / 10));
    slow.push_back(send(std::string(1, byte)));
  }
  server.answer(slow);
  expectTimeOut(server.port());
}

/// A reply that takes a second or more to send, although never a byte has to be waited for.
TEST_F(ClientTimeLimit, EndsAStreamOfSingleBytes) {
  const std::string reply = R"({"status":"ok","token":")" + std::string(1000000, 'x') + "\"}";
  server.answer({test::stream(test::frame(reply))});
  expectTimeOut(server.port());
}

/// A program that was held up until its time was over is told so, although there is something to read.
TEST_F(ClientTimeLimit, HoldsEvenIfTheReplyIsThere) {
  test::ScriptedServer hasty([](const std::string&) { return true; });
  hasty.answer({send(test::frame(test::goodReply(Request::TOKEN)))});
  test::WatchedCalls calls;
  calls.beforeSend = [](int socket) {
    pollfd replied{socket, POLLIN, 0};
    EXPECT_EQ(::poll(&replied, 1, 10000), 1);
    std::this_thread::sleep_for(test::SHORT_LIMIT);
  };
  expectTimeOut(hasty.port());
}

/// What was ready a moment ago is not any more: that is no failure, but has to be waited for.
TEST_F(ClientTimeLimit, EndsTheWaitForRoomThatWasTakenAgain) {
  test::ScriptedServer hasty([](const std::string&) { return true; });
  hasty.answer({silence()});
  test::WatchedCalls calls;
  bool isFull = false;
  calls.beforeSend = [&](int socket) {
    const std::string filling(64 * 1024, 'x');
    while (::write(socket, filling.data(), filling.size()) > 0) {
    }
    isFull = errno == EAGAIN;
  };
  expectTimeOut(hasty.port());
  EXPECT_TRUE(isFull);
}

TEST_F(ClientTimeLimit, IsNotWaitedForWhenTheReplyIsThere) {
  server.answer({send(test::frame(test::goodReply(Request::TOKEN))), silence()});
  const auto took = test::durationOf([&] { EXPECT_EQ(test::call(Request::TOKEN, server.port()), test::ok("t")); });
  EXPECT_LT(took, test::MARGIN);
}

}  // namespace
