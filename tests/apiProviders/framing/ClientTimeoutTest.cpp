// Clients that take longer than they are given.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "apiProviders/framing/ApiLog.h"
#include "apiProviders/framing/ApiServer.h"
#include "apiProviders/framing/Echo.h"
#include "support/LogCapture.h"
#include "support/LoggedAt.h"

namespace test {
namespace {

using namespace std::chrono_literals;

const std::string REQUEST_LATE = "SSO API client has not sent its request in 0.2 seconds";
const std::string REPLY_LATE = "SSO API client has not taken its reply in 0.2 seconds";

/// A text that does not fit into the buffers of a connection.
std::string longText() {
  return std::string(20 * 1024 * 1024, 'x');
}

void sendPart(const std::string& bytes) {
  const Echo echo;
  const ApiServer server(nullptr, 200ms);
  ApiClient client(server.port());
  client.send(bytes);
  EXPECT_EQ(client.receiveAll(), lengthPrefix(0)) << "the empty request is handled as after any failure";
}

void leaveReply() {
  Echo echo;
  echo.answer([](const std::string& request) { return request == "long" ? longText() : request; });
  const ApiServer server(nullptr, 200ms);
  ApiClient client(server.port());
  client.send(frame("long"));
  EXPECT_EQ(ask(server.port(), "next"), frame("next"));
  EXPECT_LT(client.receiveAll().size(), longText().size());
}

TEST(ClientTimeoutTest, RequestThatDoesNotComeWholeInTimeIsAReadFailure) {
  for (const std::string& part : {std::string(), std::string("\0\0", 2), lengthPrefix(3), lengthPrefix(3) + "ab"}) {
    EXPECT_TRUE(isLoggedAt(LOG_LEVEL_ERROR, apiLines({REQUEST_LATE})[0], [&] { sendPart(part); }));
  }
}

TEST(ClientTimeoutTest, RequestThatDribblesInIsOne) {
  const LogCapture log;
  const Echo echo;
  const ApiServer server(nullptr, 200ms);
  ApiClient client(server.port());
  std::thread dribbling([&] {
    try {
      for (const char byte : frame(std::string(200, 'x'))) {
        client.send(std::string(1, byte));
        std::this_thread::sleep_for(10ms);
      }
    } catch (const std::runtime_error&) {
      return;  // the connection is gone, as it should be
    }
  });
  EXPECT_EQ(ask(server.port(), "next"), frame("next"));
  dribbling.join();
  EXPECT_TRUE(log.contains(apiLines({REQUEST_LATE})[0]));
}

TEST(ClientTimeoutTest, ReplyThatIsNotTakenInTimeIsGivenUp) {
  EXPECT_TRUE(isLoggedAt(LOG_LEVEL_ERROR, apiLines({REPLY_LATE})[0], leaveReply));
}

TEST(ClientTimeoutTest, HandlingTakesNoneOfTheClientsTime) {
  const LogCapture log;
  Echo echo;
  echo.answer([](const std::string& request) {
    std::this_thread::sleep_for(500ms);
    return request;
  });
  const ApiServer server(nullptr, 200ms);
  EXPECT_EQ(ask(server.port(), "abc"), frame("abc"));
  EXPECT_EQ(log.lines(), setupLines() + requestLines("abc"));
}

TEST(ClientTimeoutTest, WithoutATimeoutASilentClientIsWaitedFor) {
  const LogCapture log;
  const Echo echo;
  const ApiServer server;
  ApiClient client(server.port());
  std::this_thread::sleep_for(500ms);
  client.send(frame("abc"));
  EXPECT_EQ(client.receiveAll(), frame("abc"));
  EXPECT_EQ(log.lines(), setupLines() + requestLines("abc"));
}

}  // namespace
}  // namespace test
