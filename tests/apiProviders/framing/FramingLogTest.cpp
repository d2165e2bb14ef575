// From which level on each message of the framing is written.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "apiProviders/framing/ApiLog.h"
#include "apiProviders/framing/ApiServer.h"
#include "apiProviders/framing/Echo.h"
#include "apiProviders/framing/FailingCalls.h"
#include "logging/logging.h"
#include "support/LoggedAt.h"

namespace test {
namespace {

using velo::ssoService::SsoApiSocketProvider;

void serveOne() {
  const Echo echo;
  const ApiServer server;
  ask(server.port(), "abc");
}

void serveFragment(const std::string& bytes, void (ApiClient::*leave)()) {
  const Echo echo;
  const ApiServer server;
  ApiClient client(server.port());
  client.send(bytes);
  (client.*leave)();
  ask(server.port(), "next");  // by then the fragment has been dealt with
}

void failReply(int result) {
  Echo echo;
  echo.answer([result](const std::string& request) {
    failNext(Call::SEND, result, EPIPE);
    return request;
  });
  const ApiServer server;
  ask(server.port(), "abc");
}

void failSocket() {
  SsoApiSocketProvider provider(nullptr, freePort());
  const NoNewDescriptors none;
  provider.setupServer();
}

void failSetUp(Call call) {
  failNext(call, -1, ENOBUFS);
  SsoApiSocketProvider(nullptr, freePort()).setupServer();
}

void failBind() {
  const ClosedPort taken;
  SsoApiSocketProvider(nullptr, taken.port()).setupServer();
}

void failAccept() {
  Echo echo;
  const int port = freePort();
  SsoApiSocketProvider provider(nullptr, port);
  echo.answer([&](const std::string& request) {
    provider.stop();
    return request;
  });
  std::thread thread([&] { provider.acceptLoop(); });  // without a set-up there is nothing to accept from
  ask(port, "abc");
  thread.join();
}

TEST(FramingLogTest, EachMessageIsWrittenFromItsLevelOn) {
  struct {
    int level;
    std::string message;
    std::function<void()> provoke;
  } const table[] = {
      {LOG_LEVEL_ERROR, "SSO API socket creation failed", failSocket},
      {LOG_LEVEL_INFO, "SSO API Socket successfully created", serveOne},
      {LOG_LEVEL_ERROR, std::string("SSO API setsockopt failed ") + std::strerror(ENOBUFS),
       [] { failSetUp(Call::SETSOCKOPT); }},
      {LOG_LEVEL_ERROR, "SSO API socket bind failed ", failBind},
      {LOG_LEVEL_INFO, "SSO API Socket successfully binded", serveOne},
      {LOG_LEVEL_ERROR, "SSO API listen failed", [] { failSetUp(Call::LISTEN); }},
      {LOG_LEVEL_INFO, "SSO API Server listening", serveOne},
      {LOG_LEVEL_ERROR, "SSO API server accept failed", failAccept},
      {LOG_LEVEL_INFO, "SSO API server accepted the client", serveOne},
      {LOG_LEVEL_INFO, "SSO API Client request abc", serveOne},
      {LOG_LEVEL_ERROR, "SSO API connection closed while reading request",
       [] { serveFragment(lengthPrefix(3), &ApiClient::close); }},
      {LOG_LEVEL_ERROR, "SSO API request read failed, read 4 bytes - message length",
       [] { serveFragment("", &ApiClient::reset); }},
      {LOG_LEVEL_DEBUG, "SSO API request message size: 3", serveOne},
      {LOG_LEVEL_ERROR, "SSO API request read failed, read 0 out of -1",
       [] { serveFragment(lengthPrefix(0xffffffff), &ApiClient::close); }},
      {LOG_LEVEL_INFO, "SSO API received request abc", serveOne},
      {LOG_LEVEL_ERROR, "SSO API connection closed while sending reply", [] { failReply(0); }},
      {LOG_LEVEL_ERROR, "SSO API write failed", [] { failReply(-1); }},
  };
  for (const auto& row : table) {
    EXPECT_TRUE(isLoggedAt(row.level, apiLines({row.message})[0], row.provoke));
  }
}

}  // namespace
}  // namespace test
