// Making the connection: what fails before a byte is sent, and what the descriptor is like.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <cerrno>

#include "client/Calls.h"
#include "client/WatchedCalls.h"
#include "support/ChildProcess.h"
#include "support/DeadPorts.h"
#include "support/FrameServer.h"
#include "support/OpenDescriptors.h"
#include "util/Loopback.h"

namespace {

using test::Request;

const test::Outcome CANNOT_CONNECT = test::only(SSOCLIENT_CANNOT_CONNECT);

bool bindTo(int port, int socket) {
  const sockaddr_in address = velo::ssoService::loopbackAddress(port);
  return ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

/// A port that the system hands out to connections and that nobody has at the moment. An even one: where the range of
/// those ports begins with an even number, as it does by default, odd ones go to servers that ask for any port.
int portForConnections() {
  int port = test::ClosedPort().port() & ~1;
  while (!bindTo(port, velo::ssoService::Descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)).get())) {
    port -= 2;
  }
  return port;
}

TEST(ClientConnection, CannotBeMadeWhereNobodyListens) {
  const test::ClosedPort closed;
  const test::OpenDescriptors descriptors;
  for (const Request request : test::ALL_REQUESTS) {
    const auto took = test::durationOf([&] { EXPECT_EQ(test::call(request, closed.port()), CANNOT_CONNECT); });
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_LT(took, test::MARGIN);
  }
  EXPECT_TRUE(descriptors.areAsBefore());
}

TEST(ClientConnection, CannotBeMadeWithoutADescriptor) {
  EXPECT_EQ(test::runInChild([] {
              const rlimit none{0, 0};
              ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
              const int port = 1;  // never reached
              for (const Request request : test::ALL_REQUESTS) {
                EXPECT_EQ(test::call(request, port), CANNOT_CONNECT);
                EXPECT_EQ(errno, EMFILE);
              }
            }),
            0);
}

/// The socket is bound to the port that it then connects to, so that it meets itself for certain.
TEST(ClientConnection, WithItselfIsNone) {
  const test::OpenDescriptors descriptors;
  for (const Request request : test::ALL_REQUESTS) {
    const int port = portForConnections();
    test::WatchedCalls calls;
    bool isBound = false;
    calls.beforeConnect = [&](int socket) { isBound = bindTo(port, socket); };
    EXPECT_EQ(test::call(request, port), CANNOT_CONNECT);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_TRUE(isBound);
  }
  EXPECT_TRUE(descriptors.areAsBefore());
}

/// The same by chance: about one connection in ten thousand gets the port that it goes to.
TEST(ClientConnection, WithItselfIsNoneHoweverOftenItIsTried) {
  const int port = portForConnections();
  for (int attempt = 0; attempt < 65536; ++attempt) {
    ASSERT_EQ(test::call(Request::RESET, port), CANNOT_CONNECT) << attempt;
  }
}

TEST(ClientConnection, IsNotForExecutedPrograms) {
  test::FrameServer server;
  for (const Request request : test::ALL_REQUESTS) {
    server.reply(test::goodReply(request));
    test::WatchedCalls calls;
    int flags = 0;
    calls.beforeConnect = [&](int socket) { flags = ::fcntl(socket, F_GETFD); };
    EXPECT_EQ(test::call(request, server.port()), test::goodOutcome(request));
    EXPECT_EQ(flags & FD_CLOEXEC, FD_CLOEXEC);
  }
}

TEST(ClientConnection, IsClosedBehindEachReply) {
  test::FrameServer server;
  const test::OpenDescriptors descriptors;
  for (const Request request : test::ALL_REQUESTS) {
    server.reply(test::goodReply(request));
    EXPECT_EQ(test::call(request, server.port()), test::goodOutcome(request));
    server.reply(R"({"status":"error","message":"m"})");
    EXPECT_EQ(test::call(request, server.port()), test::refused("m"));
  }
  EXPECT_TRUE(descriptors.areAsBefore());
}

}  // namespace
