#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "DiscoverySSOManager.h"
#include "apiProviders/framing/ApiLog.h"
#include "apiProviders/framing/ApiServer.h"
#include "apiProviders/requests/ScriptedManager.h"
#include "support/LogCapture.h"

namespace test {

/// A request's payload, the reply's, the calls of the manager's operations and what is logged while it is answered.
struct Exchange {
  std::string request;
  std::string reply;
  Lines calls;
  Lines lines;
};

inline std::string errorReply(const std::string& escapedMessage) {
  return R"({"status":"error","message":")" + escapedMessage + R"("})";
}

/// A server of the real framing and requests before a scripted manager.
class RequestsTest : public ::testing::Test {
 protected:
  RequestsTest() { scriptManager({}); }

  void expect(const Exchange& row, ManagerScript script = {}) {
    SCOPED_TRACE(row.request);
    scriptManager(std::move(script));
    const LogCapture log;
    EXPECT_EQ(ask(server.port(), row.request), frame(row.reply));
    EXPECT_EQ(managerCalls(), row.calls);
    EXPECT_EQ(log.lines(),
              requestLines(row.request) + apiLines({"Processing request " + row.request}) + apiLines(row.lines));
  }

  velo::ssoService::DiscoverySSOManager manager{"", ""};
  ApiServer server{&manager};
};

}  // namespace test
