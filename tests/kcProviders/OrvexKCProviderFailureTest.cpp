// A key service that is not there, leaves early, resets the connection or lies about its reply.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "kcProviders/OrvexKCProvider.h"
#include "logging/logging.h"
#include "support/Await.h"
#include "support/DeadPorts.h"
#include "support/KeyService.h"
#include "support/LogCapture.h"
#include "support/LoggedAt.h"
#include "support/OpenDescriptors.h"
#include "support/TestIdentity.h"
#include "support/Thrown.h"
#include "util/Descriptor.h"
#include "util/Signals.h"

namespace test {
namespace {

using testing::ElementsAre;
using velo::ssoService::Descriptor;
using velo::ssoService::OrvexKCProvider;

const std::string SOURCE = "kcProviders/OrvexKCProvider: ";
const std::string NOT_OPEN = "Orvex Key Certificate socket couldn't be open";
const std::string CLOSED_EARLY = "Orvex connection closed before all data read";

class OrvexKCProviderFailureTest : public testing::Test {
 protected:
  KeyService service;
  OrvexKCProvider provider{service.port()};
};

TEST_F(OrvexKCProviderFailureTest, RefusedConnection) {
  const ClosedPort closed;
  OrvexKCProvider unserved(closed.port());
  const LogCapture log;
  EXPECT_EQ(thrownBy([&] { unserved.getPrivateKey(false); }), "KCException: " + NOT_OPEN);
  EXPECT_THAT(
      log.lines(),
      ElementsAre(SOURCE + "Orvex retrieving the key", SOURCE + "Orvex Sending privatekey key/certificate request",
                  SOURCE + "Orvex Key Certificate socket successfully created", SOURCE + NOT_OPEN));
  EXPECT_EQ(thrownBy([&] { unserved.getPublicKey(false); }), "KCException: " + NOT_OPEN);
  EXPECT_EQ(thrownBy([&] { unserved.getCertificateId(false); }), "KCException: " + NOT_OPEN);
}

TEST_F(OrvexKCProviderFailureTest, KeyInAnErrorTextIsNotPassedOn) {
  service.serve("Error 5: " + deviceIdentity().privateKey, "");
  EXPECT_EQ(thrownBy([&] { provider.getPrivateKey(false); }),
            "KCException: Couldn't load key/certificate. Received: Error 5: ");
}

TEST_F(OrvexKCProviderFailureTest, ReplyIsWaitedForUntilItsLimit) {
  OrvexKCProvider limited(service.port(), std::chrono::seconds(1));
  const std::string late = "Orvex Key Certificate no reply in 1 seconds";
  for (const std::string& part : {std::string(), lengthPrefix(10) + "part"}) {
    SCOPED_TRACE(part);
    service.answer({send(part), silence()});
    const LogCapture log(LOG_LEVEL_ERROR);
    EXPECT_EQ(thrownBy([&] { limited.getPrivateKey(false); }), "KCException: " + late);
    EXPECT_THAT(log.lines(), ElementsAre(SOURCE + late));
  }
  service.serve(deviceIdentity().privateKey, deviceIdentity().certificate);
  EXPECT_EQ(limited.getPrivateKey(false), deviceIdentity().privateKey);
}

/// Takes ten real seconds: the limit itself is looked at.
TEST_F(OrvexKCProviderFailureTest, ConnectionIsWaitedForTenSeconds) {
  const StalledPort stalled;
  OrvexKCProvider unserved(stalled.port());
  const LogCapture log;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(thrownBy([&] { unserved.getCertificate(false); }), "KCException: " + NOT_OPEN);
  const auto taken = std::chrono::steady_clock::now() - start;
  EXPECT_GE(taken, std::chrono::milliseconds(9900));
  EXPECT_LT(taken, std::chrono::seconds(15));
  EXPECT_EQ(log.lines().back(), SOURCE + NOT_OPEN);
}

TEST_F(OrvexKCProviderFailureTest, NoDescriptorIsLeft) {
  const LogCapture log;
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  const int nextFree = ::dup(STDERR_FILENO);
  ::close(nextFree);
  const rlimit full{static_cast<rlim_t>(nextFree), before.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &full);
  const std::string thrown = thrownBy([&] { provider.getPrivateKey(false); });
  ::setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(thrown, "KCException: Orvex Key Certificate socket creation failed");
  EXPECT_THAT(log.lines(), ElementsAre(SOURCE + "Orvex retrieving the key",
                                       SOURCE + "Orvex Sending privatekey key/certificate request",
                                       SOURCE + "Orvex Key Certificate socket creation failed"));
}

/// While the provider waits for its connection, puts a socket in the place of its own that cannot send any more. Raw
/// system calls, as no tool has to follow what becomes of the descriptor.
void exchangeSocketOf(int descriptor) {
  const auto isConnecting = [descriptor] {
    tcp_info info{};
    socklen_t length = sizeof info;
    return ::getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 && info.tcpi_state == TCP_SYN_SENT;
  };
  ASSERT_TRUE(await(isConnecting));
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  const Descriptor ours(pair[0]);
  const Descriptor theirs(pair[1]);
  ::shutdown(ours.get(), SHUT_RDWR);
  const Descriptor connecting(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  ::syscall(SYS_dup3, ours.get(), descriptor, O_CLOEXEC);
  ::shutdown(connecting.get(), SHUT_RDWR);  // the wait ends, and the new socket knows of no error
}

TEST_F(OrvexKCProviderFailureTest, RequestThatCannotBeSent) {
  const StalledPort stalled;
  OrvexKCProvider broken(stalled.port());
  const LogCapture log;
  const OpenDescriptors open;
  const int nextFree = ::dup(STDERR_FILENO);
  ::close(nextFree);
  std::string thrown;
  std::thread caller([&] { thrown = thrownBy([&] { broken.getPrivateKey(false); }); });
  exchangeSocketOf(nextFree);
  caller.join();
  EXPECT_EQ(thrown, "KCException: Orvex Key Certificate sending the request failed");
  EXPECT_THAT(log.lines(), ElementsAre(SOURCE + "Orvex retrieving the key",
                                       SOURCE + "Orvex Sending privatekey key/certificate request",
                                       SOURCE + "Orvex Key Certificate socket successfully created",
                                       SOURCE + "Orvex Key Certificate connected to the server",
                                       SOURCE + "Orvex Sending privatekey key/certificate request",
                                       SOURCE + "Orvex Key Certificate sending the request failed"));
  EXPECT_TRUE(open.areAsBefore());
}

TEST_F(OrvexKCProviderFailureTest, ConnectionClosedBeforeTheLengthGivesAnEmptyTextThatIsNotCached) {
  std::size_t exchanges = 0;
  for (std::size_t count = 0; count < 4; ++count) {
    service.answer({send(lengthPrefix(5).substr(0, count))});
    const LogCapture log;
    EXPECT_EQ(provider.getPrivateKey(false), "") << count;
    EXPECT_EQ(log.lines().back(), SOURCE + "SSO API connection closed while reading request") << count;
    EXPECT_EQ(provider.getCertificate(false), "") << count;
    exchanges += 2;
    EXPECT_EQ(service.connectionCount(), exchanges);
  }
  service.serve("the key", "the certificate");
  EXPECT_EQ(provider.getPrivateKey(false), "the key");
  EXPECT_EQ(provider.getCertificate(false), "the certificate");
}

TEST_F(OrvexKCProviderFailureTest, ConnectionResetBeforeTheLengthGivesAnEmptyTextThatIsNotCached) {
  for (std::size_t count = 0; count < 4; ++count) {
    service.answer({send(lengthPrefix(5).substr(0, count)), reset()});
    const LogCapture log;
    EXPECT_EQ(provider.getPrivateKey(false), "") << count;
    EXPECT_EQ(log.lines().back(), SOURCE + "SSO API request read failed, read 4 bytes - message length") << count;
  }
  EXPECT_EQ(service.connectionCount(), 4U);
}

TEST_F(OrvexKCProviderFailureTest, ConnectionClosedAtEveryByteOfThePayload) {
  const std::string key(300, 'k');
  const std::string reply = frame(key);
  for (std::size_t count = 4; count < reply.size(); ++count) {
    service.answer({send(reply.substr(0, count))});
    const LogCapture log;
    ASSERT_EQ(thrownBy([&] { provider.getPrivateKey(false); }), "KCException: " + CLOSED_EARLY) << count;
    ASSERT_EQ(log.lines().back(), SOURCE + CLOSED_EARLY) << count;
  }
}

TEST_F(OrvexKCProviderFailureTest, ConnectionResetWithinThePayload) {
  const std::string key(1000, 'k');
  for (const std::size_t count : {0UL, 1UL, 250UL, 251UL, 252UL, 999UL}) {
    service.answer({send(lengthPrefix(key.size()) + key.substr(0, count)), reset()});
    const std::string failure = "Orvex read reply failed: read " + std::to_string(count) + " bytes";
    const LogCapture log;
    EXPECT_EQ(thrownBy([&] { provider.getPrivateKey(false); }), "KCException: " + failure);
    EXPECT_EQ(log.lines().back(), SOURCE + failure);
  }
}

TEST_F(OrvexKCProviderFailureTest, LengthOverTheLimitFailsWithoutWaitingForThePayload) {
  const struct {
    unsigned long length;
    const char* logged;  // the length as a signed number
  } rows[] = {
      {0x100001, "1048577"},
      {0x7fffffff, "2147483647"},
      {0x80000000, "-2147483648"},
      {0xffffffff, "-1"},
  };
  for (const auto& row : rows) {
    service.answer({send(lengthPrefix(row.length)), pause(PATIENCE)});
    const LogCapture log;
    EXPECT_EQ(thrownBy([&] { provider.getCertificate(false); }), "KCException: Orvex read reply failed: read 0 bytes");
    const std::vector<std::string> lines = log.lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[lines.size() - 2], SOURCE + "SSO API request message size: " + row.logged);
    EXPECT_EQ(lines.back(), SOURCE + "Orvex read reply failed: read 0 bytes");
  }
}

struct StopRequest {
  StopRequest() { velo::ssoService::stopRequested = 1; }
  ~StopRequest() { velo::ssoService::stopRequested = 0; }
};

TEST_F(OrvexKCProviderFailureTest, ConnectionIsWaitedForASecondOnceTheProcessIsToStop) {
  const StopRequest stop;
  const StalledPort stalled;
  OrvexKCProvider unserved(stalled.port());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(thrownBy([&] { unserved.getCertificate(false); }), "KCException: " + NOT_OPEN);
  const auto taken = std::chrono::steady_clock::now() - start;
  EXPECT_GE(taken, std::chrono::milliseconds(900));
  EXPECT_LT(taken, std::chrono::seconds(8));
}

TEST_F(OrvexKCProviderFailureTest, ReplyIsNotWaitedForOnceTheProcessIsToStop) {
  const StopRequest stop;
  const LogCapture log;
  service.answer({pause(PATIENCE)});
  EXPECT_EQ(provider.getPrivateKey(false), "");
  EXPECT_EQ(log.lines().back(), SOURCE + "SSO API request read failed, read 4 bytes - message length");
  service.answer({send(frame("a key").substr(0, 6)), pause(PATIENCE)});
  EXPECT_EQ(thrownBy([&] { provider.getPrivateKey(false); }), "KCException: Orvex read reply failed: read 2 bytes");
}

TEST_F(OrvexKCProviderFailureTest, NoDescriptorStaysOpen) {
  const Script scripts[] = {
      {},
      {reset()},
      {send("abc")},
      {send("abc"), reset()},
      {send(lengthPrefix(5) + "key")},
      {send(lengthPrefix(5) + "key"), reset()},
      {send(lengthPrefix(0xffffffff))},
      {send(frame("Error"))},
      {send(frame("key") + "surplus")},
      {send(frame("key"))},
  };
  const ClosedPort closed;
  OrvexKCProvider unserved(closed.port());
  const OpenDescriptors open;
  for (const Script& script : scripts) {
    service.answer(script);
    thrownBy([&] { provider.getPrivateKey(true); });
    thrownBy([&] { unserved.getCertificate(true); });
    EXPECT_TRUE(open.areAsBefore());
  }
}

TEST_F(OrvexKCProviderFailureTest, Levels) {
  const std::string reply = frame("a key");
  const ClosedPort closed;
  const struct {
    int level;
    std::string message;
    Script script;
  } rows[] = {
      {LOG_LEVEL_INFO, "Orvex Key Certificate socket successfully created", {send(reply)}},
      {LOG_LEVEL_INFO, "Orvex Key Certificate connected to the server", {send(reply)}},
      {LOG_LEVEL_INFO, "Orvex retrieving the key", {send(reply)}},
      {LOG_LEVEL_INFO, "Orvex Sending privatekey key/certificate request", {send(reply)}},
      {LOG_LEVEL_DEBUG, "Orvex Key Certificate request sent 10 bytes", {send(reply)}},
      {LOG_LEVEL_DEBUG, "SSO API request message size: 5", {send(reply)}},
      {LOG_LEVEL_DEBUG, "Total bytes read 5", {send(reply)}},
      {LOG_LEVEL_ERROR, "SSO API connection closed while reading request", {}},
      {LOG_LEVEL_ERROR, "SSO API request read failed, read 4 bytes - message length", {reset()}},
      {LOG_LEVEL_INFO, CLOSED_EARLY, {send(reply.substr(0, 5))}},
      {LOG_LEVEL_ERROR, "Orvex read reply failed: read 1 bytes", {send(reply.substr(0, 5)), reset()}},
  };
  for (const auto& row : rows) {
    service.answer(row.script);
    EXPECT_TRUE(isLoggedAt(row.level, SOURCE + row.message, [&] { provider.getPrivateKey(true); }));
  }
  service.answer({send(reply)});
  EXPECT_TRUE(
      isLoggedAt(LOG_LEVEL_INFO, SOURCE + "Orvex retrieving the certificate", [&] { provider.getCertificate(true); }));
  EXPECT_TRUE(
      isLoggedAt(LOG_LEVEL_ERROR, SOURCE + NOT_OPEN, [&] { OrvexKCProvider(closed.port()).getPrivateKey(false); }));
}

TEST_F(OrvexKCProviderFailureTest, SendingIsAnnouncedAtInfoAndAgainAtDebug) {
  service.serve("the key", "the certificate");
  const auto announcements = [&](int level) {
    const std::vector<std::string> lines = linesOf([&] { provider.getPrivateKey(true); }, level);
    return std::count(lines.begin(), lines.end(), SOURCE + "Orvex Sending privatekey key/certificate request");
  };
  EXPECT_EQ(announcements(LOG_LEVEL_WARNING), 0);
  EXPECT_EQ(announcements(LOG_LEVEL_INFO), 1);
  EXPECT_EQ(announcements(LOG_LEVEL_DEBUG), 2);
}

}  // namespace
}  // namespace test
