// Stop signals are a whole process's: every test here runs in a child.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "support/Await.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "util/Signals.h"

namespace {

using namespace velo::ssoService;

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* RECEIVED = "DiscoverySSOManager: Received STOP signal";

bool isReadable(int descriptor) {
  pollfd watched{descriptor, POLLIN, 0};
  return ::poll(&watched, 1, 0) > 0;
}

bool isBlocked(int signal) {
  sigset_t blocked;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  return sigismember(&blocked, signal) == 1;
}

auto handlerOf(int signal) {
  struct sigaction installed {};
  ::sigaction(signal, nullptr, &installed);
  return installed.sa_handler;
}

steady_clock::duration timeOfWait(seconds limit) {
  const auto begin = steady_clock::now();
  waitForSignal(limit);
  return steady_clock::now() - begin;
}

TEST(Signals, BeforeTheyAreTakenNothingIsPending) {
  EXPECT_EQ(test::runInChild([] {
              EXPECT_EQ(stopRequested, 0);
              EXPECT_EQ(stopSignalDescriptor(), -1);
              EXPECT_FALSE(isStopPending());
            }),
            0);
}

TEST(Signals, HandlerLogsAtInfoAndSetsTheFlag) {
  for (const int signal : {SIGTERM, SIGINT, 0}) {
    EXPECT_EQ(test::runInChild([signal] {
                const test::LogCapture log(LOG_LEVEL_INFO);
                onStopSignal(signal);
                EXPECT_THAT(log.lines(), ElementsAre(RECEIVED));
                EXPECT_EQ(stopRequested, 1);
                EXPECT_TRUE(isStopPending());
                onStopSignal(signal);
                EXPECT_EQ(stopRequested, 1);
              }),
              0)
        << signal;
  }
  EXPECT_EQ(test::runInChild([] {
              const test::LogCapture log(LOG_LEVEL_WARNING);
              onStopSignal(SIGTERM);
              EXPECT_THAT(log.lines(), IsEmpty());
              EXPECT_EQ(stopRequested, 1);
            }),
            0);
}

TEST(Signals, AreBlockedAndHandledAndTheirLikesIgnored) {
  EXPECT_EQ(test::runInChild([] {
              takeSignals();
              EXPECT_TRUE(isBlocked(SIGTERM));
              EXPECT_TRUE(isBlocked(SIGINT));
              EXPECT_FALSE(isBlocked(SIGUSR1));
              EXPECT_EQ(handlerOf(SIGTERM), &onStopSignal);
              EXPECT_EQ(handlerOf(SIGINT), &onStopSignal);
              EXPECT_EQ(handlerOf(SIGPIPE), SIG_IGN);
              EXPECT_EQ(handlerOf(SIGXFSZ), SIG_IGN);
              bool isBlockedInThread = false;
              std::thread([&] { isBlockedInThread = isBlocked(SIGTERM) && isBlocked(SIGINT); }).join();
              EXPECT_TRUE(isBlockedInThread);
            }),
            0);
}

TEST(Signals, ArePendingUntilTheyAreDelivered) {
  for (const int signal : {SIGTERM, SIGINT}) {
    EXPECT_EQ(test::runInChild([signal] {
                const test::LogCapture log;
                takeSignals();
                EXPECT_FALSE(isStopPending());
                EXPECT_FALSE(isReadable(stopSignalDescriptor()));
                ::kill(::getpid(), signal);
                EXPECT_TRUE(isStopPending());
                EXPECT_TRUE(isReadable(stopSignalDescriptor()));
                EXPECT_EQ(stopRequested, 0);
                EXPECT_THAT(log.lines(), IsEmpty());
                deliverSignals();
                EXPECT_EQ(stopRequested, 1);
                EXPECT_THAT(log.lines(), ElementsAre(RECEIVED));
                EXPECT_FALSE(isReadable(stopSignalDescriptor()));
                EXPECT_TRUE(isStopPending());
              }),
              0)
        << signal;
  }
}

TEST(Signals, EachIsDelivered) {
  EXPECT_EQ(test::runInChild([] {
              const test::LogCapture log;
              takeSignals();
              deliverSignals();
              EXPECT_EQ(stopRequested, 0);
              ::raise(SIGTERM);
              ::raise(SIGINT);
              deliverSignals();
              EXPECT_THAT(log.lines(), ElementsAre(RECEIVED, RECEIVED));
            }),
            0);
}

TEST(Signals, WaitEndsAtItsLimit) {
  EXPECT_EQ(test::runInChild([] {
              takeSignals();
              EXPECT_GE(timeOfWait(seconds(1)), seconds(1));
              EXPECT_LT(timeOfWait(seconds(0)), test::PATIENCE);
              EXPECT_EQ(stopRequested, 0);
            }),
            0);
}

TEST(Signals, WaitDeliversWhatIsPendingAtOnce) {
  EXPECT_EQ(test::runInChild([] {
              const test::LogCapture log;
              takeSignals();
              ::raise(SIGTERM);
              EXPECT_LT(timeOfWait(seconds(30)), test::PATIENCE);
              EXPECT_EQ(stopRequested, 1);
              EXPECT_THAT(log.lines(), ElementsAre(RECEIVED));
              EXPECT_LT(timeOfWait(seconds(30)), test::PATIENCE) << "a stop is for good";
              EXPECT_THAT(log.lines(), ElementsAre(RECEIVED));
            }),
            0);
}

TEST(Signals, WaitIsCutShortByASignal) {
  EXPECT_EQ(test::runInChild([] {
              const test::LogCapture log;
              takeSignals();
              std::thread stopping([] { ::kill(::getpid(), SIGINT); });
              EXPECT_LT(timeOfWait(seconds(30)), test::PATIENCE);
              EXPECT_EQ(stopRequested, 1);
              stopping.join();
            }),
            0);
}

TEST(Signals, WithoutADescriptorTheHandlerInterrupts) {
  EXPECT_EQ(test::runInChild([] {
              const test::LogCapture log;
              rlimit limit{};
              ::getrlimit(RLIMIT_NOFILE, &limit);
              const rlimit none{0, limit.rlim_max};
              ::setrlimit(RLIMIT_NOFILE, &none);
              takeSignals();
              ::setrlimit(RLIMIT_NOFILE, &limit);
              EXPECT_EQ(stopSignalDescriptor(), -1);
              EXPECT_FALSE(isBlocked(SIGTERM));
              ::raise(SIGTERM);
              EXPECT_EQ(stopRequested, 1);
              EXPECT_THAT(log.lines(), ElementsAre(RECEIVED));
            }),
            0);
}

TEST(ReloadSignal, IsBlockedHandledAndNoStop) {
  EXPECT_EQ(test::runInChild([] {
              const test::LogCapture log;
              takeSignals();
              EXPECT_TRUE(isBlocked(SIGHUP));
              EXPECT_EQ(handlerOf(SIGHUP), &onReloadSignal);
              ::kill(::getpid(), SIGHUP);
              EXPECT_FALSE(isStopPending());
              EXPECT_FALSE(isReadable(stopSignalDescriptor()));
              EXPECT_EQ(reloadRequested, 0);
              deliverSignals();
              EXPECT_EQ(reloadRequested, 1);
              EXPECT_EQ(stopRequested, 0);
              EXPECT_THAT(log.lines(), ElementsAre("DiscoverySSOManager: Received RELOAD signal"));
            }),
            0);
}

TEST(ReloadSignal, IsLoggedAtInfo) {
  EXPECT_EQ(test::runInChild([] {
              const test::LogCapture log(LOG_LEVEL_WARNING);
              onReloadSignal(SIGHUP);
              EXPECT_THAT(log.lines(), IsEmpty());
              EXPECT_EQ(reloadRequested, 1);
            }),
            0);
}

TEST(ReloadSignal, EndsAWaitBeforeAndWithinIt) {
  EXPECT_EQ(test::runInChild([] {
              const test::LogCapture log;
              takeSignals();
              ::kill(::getpid(), SIGHUP);
              EXPECT_LT(timeOfWait(seconds(30)), seconds(10));
              EXPECT_EQ(reloadRequested.exchange(0), 1);
              std::thread sender([] { ::kill(::getpid(), SIGHUP); });
              EXPECT_LT(timeOfWait(seconds(30)), seconds(10));
              EXPECT_EQ(reloadRequested, 1);
              sender.join();
              EXPECT_LT(timeOfWait(seconds(30)), seconds(10)) << "one that is handled and not obeyed";
            }),
            0);
}

}  // namespace
