// Set-up of the listening socket, its retries, and the loop that accepts clients.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <optional>

#include "apiProviders/framing/ApiLog.h"
#include "apiProviders/framing/ApiServer.h"
#include "apiProviders/framing/Echo.h"
#include "apiProviders/framing/FailingCalls.h"
#include "support/LogCapture.h"
#include "support/OpenDescriptors.h"
#include "support/TestClock.h"

namespace test {
namespace {

using namespace std::chrono_literals;
using velo::ssoService::SsoApiSocketProvider;

std::vector<int> socketDescriptors() {
  std::vector<int> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone).string().rfind("socket:", 0) == 0) {
      found.push_back(std::stoi(entry.path().filename().string()));
    }
  }
  return found;
}

class ServerSocketTest : public ::testing::Test {
 protected:
  ~ServerSocketTest() override { replacePause({}); }

  /// The provider is stopped while it handles this request, so that this is its last one.
  void stopAt(const std::string& last, SsoApiSocketProvider& provider) {
    echo.answer([last, &provider](const std::string& request) {
      if (request == last) {
        provider.stop();
      }
      return request;
    });
  }

  LogCapture log;
  Echo echo;
};

/// Whether a thread of this process is blocked in a system call.
bool isAsleep(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  return text.find(") S ") != std::string::npos;
}

TEST_F(ServerSocketTest, ConstructionOpensNothing) {
  const OpenDescriptors descriptors;
  const SsoApiSocketProvider provider(nullptr, freePort());
  EXPECT_TRUE(descriptors.areAsBefore());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ServerSocketTest, SetUpListensOnTheLoopbackAddressWithFiveInTheBacklog) {
  const int port = freePort();
  SsoApiSocketProvider provider(nullptr, port);
  EXPECT_TRUE(provider.setupServer());
  EXPECT_EQ(log.lines(), setupLines());
  const std::vector<int> sockets = socketDescriptors();
  ASSERT_EQ(sockets.size(), 1U);

  sockaddr_in address{};
  socklen_t length = sizeof address;
  ASSERT_EQ(::getsockname(sockets[0], reinterpret_cast<sockaddr*>(&address), &length), 0);
  EXPECT_EQ(ntohl(address.sin_addr.s_addr), INADDR_LOOPBACK);
  EXPECT_EQ(ntohs(address.sin_port), port);

  EXPECT_EQ(lastBacklog(), 5);
}

TEST_F(ServerSocketTest, DescriptorsAreNotInherited) {
  std::vector<int> inherited;
  echo.answer([&](const std::string& request) {
    for (const int socket : socketDescriptors()) {
      if ((::fcntl(socket, F_GETFD) & FD_CLOEXEC) == 0) {
        inherited.push_back(socket);
      }
    }
    return request;
  });
  const ApiServer server;
  ask(server.port(), "x");
  EXPECT_EQ(inherited, std::vector<int>());
}

TEST_F(ServerSocketTest, EachStepOfTheSetUpCanFail) {
  const ClosedPort taken;
  struct {
    const char* step;
    std::function<bool(SsoApiSocketProvider&)> setUp;
    int port;
    Lines lines;
  } const table[] = {
      {"socket",
       [](SsoApiSocketProvider& provider) {
         const NoNewDescriptors none;
         return provider.setupServer();
       },
       freePort(),
       {"SSO API socket creation failed"}},
      {"setsockopt",
       [](SsoApiSocketProvider& provider) {
         failNext(Call::SETSOCKOPT, -1, ENOBUFS);
         return provider.setupServer();
       },
       freePort(),
       {"SSO API Socket successfully created", std::string("SSO API setsockopt failed ") + std::strerror(ENOBUFS)}},
      {"bind",
       [](SsoApiSocketProvider& provider) { return provider.setupServer(); },
       taken.port(),
       {"SSO API Socket successfully created", "SSO API socket bind failed "}},
      {"listen",
       [](SsoApiSocketProvider& provider) {
         failNext(Call::LISTEN, -1, EADDRINUSE);
         return provider.setupServer();
       },
       freePort(),
       {"SSO API Socket successfully created", "SSO API Socket successfully binded", "SSO API listen failed"}}};
  Lines expected;
  for (const auto& row : table) {
    SCOPED_TRACE(row.step);
    SsoApiSocketProvider provider(nullptr, row.port);
    EXPECT_FALSE(row.setUp(provider));
    expected = expected + apiLines(row.lines);
    EXPECT_EQ(log.lines(), expected);
  }
}

TEST_F(ServerSocketTest, PortCanBeUsedAgainAtOnce) {
  const int port = freePort();
  for (int round = 0; round < 3; ++round) {
    SsoApiSocketProvider provider(nullptr, port);
    ASSERT_TRUE(provider.setupServer());
    stopAt("x", provider);
    std::thread loop([&] { provider.acceptLoop(); });
    EXPECT_EQ(ask(port, "x"), frame("x"));  // the server closes first, so it keeps the connection's remains
    loop.join();
  }
}

TEST_F(ServerSocketTest, TakenPortIsTriedEveryThirtySecondsUntilItIsFree) {
  auto taken = std::make_unique<ClosedPort>();
  const int port = taken->port();
  std::vector<std::chrono::seconds> pauses;
  replacePause([&](std::chrono::seconds duration) {
    pauses.push_back(duration);
    if (pauses.size() == 3) {
      taken.reset();
    }
  });
  SsoApiSocketProvider provider(nullptr, port);
  stopAt("last", provider);
  std::thread thread([&] { provider.serve(); });
  EXPECT_EQ(ask(port, "first"), frame("first"));
  EXPECT_EQ(ask(port, "last"), frame("last"));
  thread.join();

  EXPECT_EQ(pauses, (std::vector<std::chrono::seconds>{30s, 30s, 30s}));
  const Lines refused = apiLines({"SSO API Socket successfully created", "SSO API socket bind failed "});
  EXPECT_EQ(log.lines(), refused + refused + refused + setupLines() + requestLines("first") + requestLines("last"));
}

TEST_F(ServerSocketTest, StopEndsTheRetries) {
  const ClosedPort taken;
  SsoApiSocketProvider provider(nullptr, taken.port());
  replacePause([&](std::chrono::seconds) { provider.stop(); });
  provider.serve();
  EXPECT_EQ(log.lines(), apiLines({"SSO API Socket successfully created", "SSO API socket bind failed "}));
}

TEST_F(ServerSocketTest, StopBeforeServingOpensNothing) {
  SsoApiSocketProvider provider(nullptr, freePort());
  provider.stop();
  provider.serve();
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ServerSocketTest, StopTakesEffectAfterTheNextConnection) {
  const int port = freePort();
  SsoApiSocketProvider provider(nullptr, port);
  std::atomic<pid_t> id{0};
  std::promise<void> ended;
  std::thread thread([&] {
    id = ::gettid();
    provider.serve();
    ended.set_value();
  });
  EXPECT_EQ(ask(port, "first"), frame("first"));
  EXPECT_TRUE(await([&] { return isAsleep(id); }));  // nothing but the next connection can keep it waiting
  provider.stop();
  std::future<void> end = ended.get_future();
  EXPECT_EQ(end.wait_for(0s), std::future_status::timeout);
  EXPECT_EQ(ask(port, "last"), frame("last"));
  EXPECT_EQ(end.wait_for(PATIENCE), std::future_status::ready);
  thread.join();
  EXPECT_EQ(echo.requests(), (Lines{"first", "last"}));
}

TEST_F(ServerSocketTest, ClientsAreServedOneAfterAnother) {
  std::promise<void> released;
  echo.answer([handling = released.get_future().share()](const std::string& request) {
    handling.wait();
    return request;
  });
  ApiServer server;
  ApiClient first(server.port());
  first.send(frame("first"));
  ASSERT_TRUE(await([&] { return !echo.requests().empty(); }));
  ApiClient second(server.port());
  second.send(frame("second"));
  second.awaitDelivery();
  EXPECT_EQ(log.lines(), setupLines() + requestLines("first"));
  EXPECT_EQ(echo.requests(), Lines{"first"});
  released.set_value();
  EXPECT_EQ(first.receiveAll(), frame("first"));
  EXPECT_EQ(second.receiveAll(), frame("second"));
  EXPECT_EQ(log.lines(), setupLines() + requestLines("first") + requestLines("second"));
}

TEST_F(ServerSocketTest, ProvidersServeInParallel) {
  const ApiServer other;
  const ApiServer server;
  std::string reply;
  echo.answer([&](const std::string& request) {
    if (request == "outer") {
      reply = ask(other.port(), "inner");  // while this request is being handled
    }
    return request;
  });
  EXPECT_EQ(ask(server.port(), "outer"), frame("outer"));
  EXPECT_EQ(reply, frame("inner"));
}

TEST_F(ServerSocketTest, FailedAcceptSetsTheServerUpAgainAtOnce) {
  std::vector<std::chrono::seconds> pauses;
  replacePause([&](std::chrono::seconds duration) { pauses.push_back(duration); });
  const int port = freePort();
  SsoApiSocketProvider provider(nullptr, port);
  stopAt("x", provider);
  std::thread thread([&] { provider.acceptLoop(); });  // without a set-up there is nothing to accept from
  EXPECT_EQ(ask(port, "x"), frame("x"));
  thread.join();
  EXPECT_EQ(log.lines(), apiLines({"SSO API server accept failed"}) + setupLines() + requestLines("x"));
  EXPECT_TRUE(pauses.empty());
}

TEST_F(ServerSocketTest, SetUpThatFailsAfterAFailedAcceptIsTriedAgainAtOnce) {
  std::vector<std::chrono::seconds> pauses;
  replacePause([&](std::chrono::seconds duration) { pauses.push_back(duration); });
  const int port = freePort();
  SsoApiSocketProvider provider(nullptr, port);
  stopAt("x", provider);
  std::thread thread([&] {
    failNext(Call::LISTEN, -1, EADDRINUSE);
    provider.acceptLoop();
  });
  EXPECT_EQ(ask(port, "x"), frame("x"));
  thread.join();
  EXPECT_EQ(log.lines(),
            apiLines({"SSO API server accept failed", "SSO API Socket successfully created",
                      "SSO API Socket successfully binded", "SSO API listen failed", "SSO API server accept failed"}) +
                setupLines() + requestLines("x"));
  EXPECT_TRUE(pauses.empty());
}

TEST_F(ServerSocketTest, ServiceGoesOnAfterAShortageOfDescriptors) {
  ApiServer server;
  std::optional<NoNewDescriptors> shortage;
  echo.answer([&](const std::string& request) {
    shortage.emplace();
    return request;
  });
  ApiClient served(server.port());
  ApiClient waiting(server.port());
  served.send(frame("x"));
  EXPECT_EQ(served.receiveAll(), frame("x"));
  EXPECT_ANY_THROW(waiting.receiveAll());  // reset with the listening socket, which the failed accept gave up
  echo.answer([](const std::string& request) { return request; });
  shortage.reset();
  EXPECT_EQ(ask(server.port(), "next"), frame("next"));
  EXPECT_TRUE(log.contains(apiLines({"SSO API server accept failed"})[0]));
}

TEST_F(ServerSocketTest, NoDescriptorIsLost) {
  const OpenDescriptors descriptors;
  {
    const ClosedPort taken;
    SsoApiSocketProvider refused(nullptr, taken.port());
    for (int attempt = 0; attempt < 5; ++attempt) {
      EXPECT_FALSE(refused.setupServer());
    }
    ApiServer server;
    for (int round = 0; round < 5; ++round) {
      ask(server.port(), "x");
      ApiClient(server.port()).close();
      ApiClient(server.port()).reset();
      ApiClient(server.port()).send(lengthPrefix(0xffffffff));
    }
  }
  EXPECT_TRUE(descriptors.areAsBefore());
}

}  // namespace
}  // namespace test
