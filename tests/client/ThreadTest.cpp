// Calls from many threads at once, each with its own scope, answer and end.

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "client/Calls.h"
#include "json/json.h"
#include "support/FrameServer.h"
#include "support/KeyService.h"  // its frames are the same
#include "support/OpenDescriptors.h"

namespace {

using test::Outcome;
using test::Request;
using test::Script;

constexpr int THREADS = 8;
constexpr int CALLS = 40;

void runThreads(const std::function<void(int thread)>& action) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < THREADS; ++thread) {
    threads.emplace_back([&action, thread] { action(thread); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

/// Replies to a token request with the token "token for " and the scope.
Script tokenForItsScope(const std::string& request) {
  json::jobject reply;
  reply["status"] = "ok";
  reply["token"] = "token for " + json::jobject::parse(request.substr(4))["scope"].as_string();
  return {test::send(test::frame(reply.as_string()))};
}

Outcome tokenFor(const std::string& scope, int port) {
  return test::outcomeOf([&](char** text) {
    return ssoclient_get_token(port, scope.c_str(), static_cast<int>(test::LONG_LIMIT.count()), text);
  });
}

TEST(ClientThreads, GetTheTokensOfTheirOwnScopes) {
  test::FrameServer server;
  server.answer(tokenForItsScope);
  std::atomic<int> right{0};
  runThreads([&](int thread) {
    for (int number = 0; number < CALLS; ++number) {
      const std::string scope = std::string(static_cast<std::size_t>(number) * 50, 'x') + "/\"" +
                                std::to_string(thread) + "." + std::to_string(number);
      const Outcome outcome = tokenFor(scope, server.port());
      EXPECT_EQ(outcome, test::ok("token for " + scope));
      right += outcome.status == SSOCLIENT_OK ? 1 : 0;
    }
  });
  EXPECT_EQ(right, THREADS * CALLS);
  EXPECT_EQ(server.requests().size(), static_cast<std::size_t>(THREADS * CALLS));
}

/// What the server does with this request: each thread has a fault of its own.
Script faultFor(const std::string& request) {
  switch (request.back() == '}' ? request[request.size() - 3] - '0' : 0) {
    case 0:
      return tokenForItsScope(request);
    case 1:
      return {test::send(test::frame(R"({"status":"error","message":"m"})"))};
    case 2:
      return {test::send("\1")};
    case 3:
      return {test::reset()};
    case 4:
      return {test::send(test::frame("garbage"))};
    case 5:
      return {test::send("\xff\xff\xff\xff"), test::silence()};
    case 6:
      return {test::drip(test::frame(R"({"status":"ok","token":"t"})"))};
    default:
      return {};
  }
}

TEST(ClientThreads, EndEachInItsOwnWay) {
  const Outcome expected[THREADS] = {test::ok("token for 0"),
                                     test::refused("m"),
                                     test::only(SSOCLIENT_CONNECTION_CLOSED),
                                     test::only(SSOCLIENT_CONNECTION_CLOSED),
                                     test::only(SSOCLIENT_MALFORMED_REPLY),
                                     test::only(SSOCLIENT_MALFORMED_REPLY),
                                     test::ok("t"),
                                     test::only(SSOCLIENT_CONNECTION_CLOSED)};
  test::FrameServer server;
  server.answer(faultFor);
  const test::OpenDescriptors descriptors;
  runThreads([&](int thread) {
    for (int number = 0; number < CALLS / 4; ++number) {
      EXPECT_EQ(tokenFor(std::to_string(thread), server.port()), expected[thread]) << thread;
    }
  });
  EXPECT_TRUE(descriptors.areAsBefore());
}

}  // namespace
