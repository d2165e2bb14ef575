// How the request's frame is read, and what becomes of one that does not come whole.

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "apiProviders/framing/ApiLog.h"
#include "apiProviders/framing/ApiServer.h"
#include "apiProviders/framing/Echo.h"
#include "support/LogCapture.h"

namespace test {
namespace {

using namespace std::string_literals;

constexpr std::size_t MEBIBYTE = 1024 * 1024;
const std::string EMPTY_REPLY = lengthPrefix(0);

/// A text in which a byte that is lost or moved shows.
std::string textOf(std::size_t length) {
  std::string text;
  while (text.size() < length) {
    text += static_cast<char>('a' + text.size() % 26);
  }
  return text;
}

class RequestFrameTest : public ::testing::Test {
 protected:
  /// The lines since the server was set up.
  Lines served() const {
    Lines lines = log.lines();
    EXPECT_GE(lines.size(), setupLines().size());
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(setupLines().size()));
    return lines;
  }

  LogCapture log;
  Echo echo;
  ApiServer server;
};

TEST_F(RequestFrameTest, PayloadIsGivenOnAndReplyIsFramedTheSameWay) {
  EXPECT_EQ(ask(server.port(), R"({"a":1})"), "\0\0\0\x07{\"a\":1}"s);
  EXPECT_EQ(served(), requestLines(R"({"a":1})"));
}

TEST_F(RequestFrameTest, LengthsAboutTheEndOfTheFirstReadAreServed) {
  Lines expected;
  for (const std::size_t length : {0U, 1U, 250U, 251U, 252U, 253U}) {
    SCOPED_TRACE(length);
    const std::string payload = textOf(length);
    EXPECT_EQ(ask(server.port(), payload), frame(payload));
    expected = expected + requestLines(payload);
    EXPECT_EQ(served(), expected);
  }
}

TEST_F(RequestFrameTest, LengthsUpToTheLimitAreServed) {
  log_set_level(LOG_LEVEL_ERROR);  // the payloads need not be written down
  for (const std::size_t length : {std::size_t{65535}, std::size_t{65536}, MEBIBYTE - 1, MEBIBYTE}) {
    SCOPED_TRACE(length);
    const std::string payload = textOf(length);
    EXPECT_TRUE(ask(server.port(), payload) == frame(payload));
    EXPECT_TRUE(echo.requests().back() == payload);
  }
  EXPECT_EQ(served(), Lines());
}

TEST_F(RequestFrameTest, LengthsBeyondTheLimitAreReadFailures) {
  struct {
    std::uint32_t length;
    const char* printed;
  } const table[] = {
      {MEBIBYTE + 1, "1048577"}, {0x7fffffff, "2147483647"}, {0x80000000, "-2147483648"}, {0xffffffff, "-1"}};
  Lines expected;
  for (const auto& row : table) {
    SCOPED_TRACE(row.printed);
    ApiClient client(server.port());
    client.send(lengthPrefix(row.length));
    EXPECT_EQ(client.receiveAll(), EMPTY_REPLY);
    client.close();
    expected =
        expected + apiLines({"SSO API server accepted the client", "SSO API request message size: "s + row.printed,
                             "SSO API request read failed, read 0 out of "s + row.printed, "SSO API Client request "});
  }
  EXPECT_EQ(served(), expected);
  EXPECT_EQ(ask(server.port(), "next"), frame("next"));
}

TEST_F(RequestFrameTest, ClientThatSendsAllOfARefusedFrameStillGetsTheReply) {
  ApiClient client(server.port());
  client.send(frame(std::string(MEBIBYTE + 1, 'x')));
  EXPECT_EQ(client.receiveAll(), EMPTY_REPLY);
}

TEST_F(RequestFrameTest, ClientThatNeverStopsSendingIsCutOff) {
  ApiClient flooding(server.port());
  std::thread flood([&] {
    try {
      flooding.send(lengthPrefix(0xffffffff));
      for (;;) {
        flooding.send(std::string(64 * 1024, 'x'));
      }
    } catch (const std::exception&) {  // the connection's end
    }
  });
  EXPECT_EQ(ask(server.port(), "next"), frame("next"));
  flood.join();
}

TEST_F(RequestFrameTest, OneByteAtATimeIsServed) {
  ApiClient client(server.port());
  for (const char byte : frame("slow")) {
    client.send(std::string(1, byte));
  }
  EXPECT_EQ(client.receiveAll(), frame("slow"));
  EXPECT_EQ(served(), requestLines("slow"));
}

TEST_F(RequestFrameTest, SplitAtAnyPlaceIsServed) {
  const std::string bytes = frame("payload");
  for (std::size_t split = 0; split <= bytes.size(); ++split) {
    SCOPED_TRACE(split);
    ApiClient client(server.port());
    client.send(bytes.substr(0, split));
    client.send(bytes.substr(split));
    EXPECT_EQ(client.receiveAll(), frame("payload"));
  }
}

TEST_F(RequestFrameTest, BytesBeyondTheFrameAreIgnored) {
  for (const std::size_t surplus : {1U, 247U, 248U, 10000U}) {
    SCOPED_TRACE(surplus);
    std::promise<void> arrived;
    echo.answer([all = arrived.get_future().share()](const std::string& request) {
      all.wait();
      return request;
    });
    ApiClient client(server.port());
    client.send(frame("four") + std::string(surplus, '!'));
    client.awaitDelivery();
    arrived.set_value();
    EXPECT_EQ(client.receiveAll(), frame("four"));
    EXPECT_EQ(echo.requests().back(), "four");
  }
}

TEST_F(RequestFrameTest, SecondFrameOfAConnectionIsIgnored) {
  ApiClient client(server.port());
  client.send(frame("first") + frame("second"));
  EXPECT_EQ(client.receiveAll(), frame("first"));
  EXPECT_EQ(echo.requests(), Lines{"first"});
}

TEST_F(RequestFrameTest, RequestEndsAtItsFirstNul) {
  EXPECT_EQ(ask(server.port(), "before\0after"s), frame("before"));
  EXPECT_EQ(served(), apiLines({"SSO API server accepted the client", "SSO API request message size: 12",
                                "SSO API received request before", "SSO API Client request before"}));
}

TEST_F(RequestFrameTest, TextIsNeverTakenAsAFormat) {
  EXPECT_EQ(ask(server.port(), "%s%n%d"), frame("%s%n%d"));
  EXPECT_EQ(served(), requestLines("%s%n%d"));
}

// What a client sent, and the lines that follow when no more of its frame comes.
struct Fragment {
  const char* name;
  std::string bytes;
  Lines closed;
  Lines reset;
};

std::vector<Fragment> fragments() {
  const std::string closed = "SSO API connection closed while reading request";
  const std::string lengthFailed = "SSO API request read failed, read 4 bytes - message length";
  std::vector<Fragment> table;
  for (std::size_t count = 0; count < 4; ++count) {
    table.push_back({"in the length", lengthPrefix(3).substr(0, count), {closed}, {lengthFailed}});
  }
  for (std::size_t count = 0; count < 3; ++count) {
    const std::string size = "SSO API request message size: 3";
    const std::string failed = "SSO API request read failed, read " + std::to_string(count) + " out of 3";
    table.push_back({"in the payload", frame("abc").substr(0, 4 + count), {size, closed}, {size, failed}});
  }
  const std::string size = "SSO API request message size: 1048576";
  table.push_back({"in a long payload",
                   lengthPrefix(MEBIBYTE) + std::string(MEBIBYTE - 1, 'x'),
                   {size, closed},
                   {size, "SSO API request read failed, read 1048575 out of 1048576"}});
  return table;
}

TEST_F(RequestFrameTest, ClientThatEndsItsHalfEarlyGetsTheReplyToAnEmptyRequest) {
  Lines expected;
  for (const Fragment& row : fragments()) {
    SCOPED_TRACE(row.name + " after "s + std::to_string(row.bytes.size()));
    ApiClient client(server.port());
    client.send(row.bytes);
    client.finishSending();
    EXPECT_EQ(client.receiveAll(), EMPTY_REPLY);
    expected = expected + apiLines({"SSO API server accepted the client"}) + apiLines(row.closed) +
               apiLines({"SSO API Client request "});
  }
  EXPECT_EQ(served(), expected);
}

TEST_F(RequestFrameTest, ClientThatClosesEarlyCostsNothingButLines) {
  Lines expected;
  for (const Fragment& row : fragments()) {
    SCOPED_TRACE(row.name + " after "s + std::to_string(row.bytes.size()));
    ApiClient client(server.port());
    client.send(row.bytes);
    client.close();
    expected = expected + apiLines({"SSO API server accepted the client"}) + apiLines(row.closed) +
               apiLines({"SSO API Client request "});
    EXPECT_TRUE(await([&] { return served().size() >= expected.size(); }));  // or the backlog would overflow
  }
  EXPECT_EQ(ask(server.port(), "next"), frame("next"));
  EXPECT_EQ(served(), expected + requestLines("next"));
}

TEST_F(RequestFrameTest, ClientThatResetsItsConnectionCostsNothingButLines) {
  Lines expected;
  for (const Fragment& row : fragments()) {
    SCOPED_TRACE(row.name + " after "s + std::to_string(row.bytes.size()));
    ApiClient client(server.port());
    client.send(row.bytes);
    client.awaitDelivery();
    client.reset();
    expected = expected + apiLines({"SSO API server accepted the client"}) + apiLines(row.reset) +
               apiLines({"SSO API Client request ", "SSO API write failed"});
    EXPECT_TRUE(await([&] { return served().size() >= expected.size(); }));
  }
  EXPECT_EQ(ask(server.port(), "next"), frame("next"));
  EXPECT_EQ(served(), expected + requestLines("next"));
}

TEST_F(RequestFrameTest, InterruptedReadIsAReadFailure) {
  struct {
    std::string bytes;
    Lines lines;
  } const table[] = {
      {"", {"SSO API request read failed, read 4 bytes - message length"}},
      {frame("abc").substr(0, 6), {"SSO API request message size: 3", "SSO API request read failed, read 2 out of 3"}}};
  Lines expected;
  for (const auto& row : table) {
    SCOPED_TRACE(row.lines.back());
    const std::size_t before = echo.requests().size();
    std::promise<void> released;
    echo.answer([handling = released.get_future().share()](const std::string& request) {
      handling.wait();  // signals that come too late hit this wait and not the next accept
      return request;
    });
    ApiClient client(server.port());
    client.send(row.bytes);
    expected = expected + apiLines({"SSO API server accepted the client"}) + apiLines(row.lines) +
               apiLines({"SSO API Client request "});
    EXPECT_TRUE(await([&] { return served().size() >= expected.size() - 2; }));
    EXPECT_TRUE(await([&] {
      server.interrupt();
      return echo.requests().size() > before;
    }));
    released.set_value();
    EXPECT_EQ(client.receiveAll(), EMPTY_REPLY);
  }
  EXPECT_EQ(served(), expected);
}

}  // namespace
}  // namespace test
