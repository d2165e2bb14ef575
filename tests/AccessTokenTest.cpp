#include <gmock/gmock.h>

#include <limits>

#include "AccessToken.h"
#include "logging/logging.h"
#include "support/LogCapture.h"
#include "support/LoggedAt.h"
#include "support/TestClock.h"
#include "support/WithinOneSecond.h"

namespace test {
namespace {

using std::chrono::seconds;
using testing::ElementsAreArray;
using velo::ssoService::AccessToken;

class AccessTokenTest : public testing::Test {
 protected:
  ~AccessTokenTest() override { moveClock(seconds(0)); }
};

std::string answer(const std::string& expiresIn) {
  return R"({"access_token":"abc","expires_in":)" + expiresIn + "}";
}

/// Whether a token that was granted at one offset of the clock is valid at another.
bool isValidAt(const std::string& responseJson, std::int64_t grantedAt, std::int64_t lookedAt, std::uint32_t margin) {
  return withinOneSecond([&] {
    moveClock(seconds(grantedAt));
    const AccessToken token(responseJson);
    moveClock(seconds(lookedAt));
    return token.isValid(margin);
  });
}

TEST_F(AccessTokenTest, WithoutAnAnswerThereIsNoToken) {
  const AccessToken token;
  EXPECT_EQ(token.getToken(), "");
  EXPECT_FALSE(token.isValid(0));
}

TEST_F(AccessTokenTest, AnswersAndWhatIsLogged) {
  const auto noToken = [](const std::string& json) { return "AccessToken: No access_token found in " + json; };
  const auto unusable = [](const std::string& json, const std::string& reason) {
    return "AccessToken: Error processing toke json: " + json + " Error:" + reason;
  };
  const std::string hasToken = "AccessToken: Access token: ";
  const std::string noExpiry = "AccessToken: No token expiration time found";
  const auto expires = [](const char* text) {
    return "AccessToken: Access token expires in " + std::string(text) + " seconds";
  };
  const struct {
    std::string json;
    const char* token;
    bool isValid;
    std::vector<std::string> lines;
  } rows[] = {
      {R"({"access_token":"abc","expires_in":3600})", "abc", true, {hasToken, expires("3600")}},
      {R"({"token_type":"bearer","expires_in":60,"scope":"x","access_token":"a.b-c_d=="} tail)",
       "a.b-c_d==",
       true,
       {hasToken, expires("60")}},
      {R"({"access_token":"a\"b\\c","expires_in":60})", "a\"b\\c", true, {hasToken, expires("60")}},
      {R"({"access_token":"abc"})", "abc", false, {hasToken, noExpiry}},
      {R"({"access_token":"abc","expires_in":"3600"})", "abc", false, {hasToken, noExpiry}},
      {R"({"access_token":"abc","expires_in":null})", "abc", false, {hasToken, noExpiry}},
      {R"({"access_token":"abc","expires_in":true})", "abc", false, {hasToken, noExpiry}},
      {R"({"access_token":"abc","expires_in":[3600]})", "abc", false, {hasToken, noExpiry}},
      {R"({"access_token":"","expires_in":3600})", "", false, {hasToken, expires("3600")}},
      {R"({"expires_in":3600})", "", false, {noToken(R"({"expires_in":3600})"), expires("3600")}},
      {R"({"access_token":5,"expires_in":3600})",
       "",
       false,
       {noToken(R"({"access_token":5,"expires_in":3600})"), expires("3600")}},
      {R"({"access_token":null})", "", false, {noToken(R"({"access_token":null})"), noExpiry}},
      {R"({"error":"%s%n"})", "", false, {noToken(R"({"error":"%s%n"})"), noExpiry}},
      {"{}", "", false, {noToken("{}"), noExpiry}},
      {"[]", "", false, {noToken("[]"), noExpiry}},
      {R"(["access_token","abc"])", "", false, {noToken(R"(["access_token","abc"])"), noExpiry}},
      {"", "", false, {unusable("", "Input is not a valid object")}},
      {"<p>%s%n</p>", "", false, {unusable("<p>%s%n</p>", "Input is not a valid object")}},
      {R"({"access_token":"abc")", "", false, {unusable(R"({"access_token":"abc")", "Input is not a valid object")}},
      {R"({"access_token":"a","access_token":"b"})",
       "",
       false,
       {unusable(R"({"access_token":"a","access_token":"b"})", "Key conflict")}},
      {answer("2147483648"), "", false, {hasToken, unusable(answer("2147483648"), "stoi")}},
      {answer("-2147483649"), "", false, {hasToken, unusable(answer("-2147483649"), "stoi")}},
      {answer("99999999999999999999"), "", false, {hasToken, unusable(answer("99999999999999999999"), "stoi")}},
  };
  for (const auto& row : rows) {
    const LogCapture log;
    const AccessToken token(row.json);
    EXPECT_EQ(token.getToken(), row.token) << row.json;
    EXPECT_EQ(token.isValid(0), row.isValid) << row.json;
    EXPECT_THAT(log.lines(), ElementsAreArray(row.lines)) << row.json;
  }
}

TEST_F(AccessTokenTest, LifetimeIsTheWholePartOfTheNumberText) {
  const struct {
    const char* expiresIn;
    long lifetime;
  } rows[] = {
      {"3600", 3600}, {"3600.9", 3600}, {"3.6e3", 3}, {"1e400", 1}, {"20", 20}, {"0.99", 0}, {"2147483647", 2147483647},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(linesOf([&] { AccessToken{answer(row.expiresIn)}; }, LOG_LEVEL_INFO).back(),
              "AccessToken: Access token expires in " + std::to_string(row.lifetime) + " seconds");
    const auto lifetime = static_cast<std::uint32_t>(row.lifetime);
    EXPECT_TRUE(isValidAt(answer(row.expiresIn), 0, 0, lifetime)) << row.expiresIn;
    EXPECT_FALSE(isValidAt(answer(row.expiresIn), 0, 0, lifetime + 1)) << row.expiresIn;
  }
}

TEST_F(AccessTokenTest, ValidWhileAtLeastTheMarginIsLeft) {
  constexpr std::uint32_t LARGEST = std::numeric_limits<std::uint32_t>::max();
  const struct {
    const char* expiresIn;
    std::int64_t later;
    std::uint32_t margin;
    bool isValid;
  } rows[] = {
      {"3600", 0, 20, true},       {"3600", 3579, 20, true},       {"3600", 3580, 20, true},
      {"3600", 3581, 20, false},   {"3600", 3600, 20, false},      {"3600", 3600, 0, true},
      {"3600", 3601, 0, false},    {"3600", 3601, 20, false},      {"3600", 1000000, 20, false},
      {"3600", 0, LARGEST, false}, {"3600", 3601, LARGEST, false}, {"20", 0, 20, true},
      {"19", 0, 20, false},        {"10", 0, 20, false},           {"0", 0, 0, true},
      {"-1", 0, 0, false},         {"-1", 0, 20, false},           {"-2147483648", 0, 20, false},
      {"3600", -1000, 20, true},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(isValidAt(answer(row.expiresIn), 0, row.later, row.margin), row.isValid)
        << row.expiresIn << " seconds, looked at " << row.later << " seconds later with margin " << row.margin;
  }
}

/// The expiry is kept in 32 bits, which are full in 2038 and again in 2106.
TEST_F(AccessTokenTest, LifetimeIsRightAcrossTheEndOf32BitTime) {
  for (const std::int64_t end : {std::int64_t{1} << 31, std::int64_t{1} << 32}) {
    for (const std::int64_t before : {3600, 3599, 20, 1, 0, -1}) {
      const std::int64_t granted = end - before - velo::ssoService::currentSeconds();
      EXPECT_TRUE(isValidAt(answer("3600"), granted, granted, 3600)) << before << " seconds before " << end;
      EXPECT_FALSE(isValidAt(answer("3600"), granted, granted, 3601)) << before << " seconds before " << end;
      EXPECT_TRUE(isValidAt(answer("3600"), granted, granted + 3580, 20)) << before << " seconds before " << end;
      EXPECT_FALSE(isValidAt(answer("3600"), granted, granted + 3581, 20)) << before << " seconds before " << end;
      EXPECT_FALSE(isValidAt(answer("3600"), granted, granted + 4000, 20)) << before << " seconds before " << end;
    }
  }
}

TEST_F(AccessTokenTest, ClearedTokenIsNoToken) {
  AccessToken token(answer("3600"));
  token.clear();
  EXPECT_EQ(token.getToken(), "");
  EXPECT_FALSE(token.isValid(0));
}

TEST_F(AccessTokenTest, ClearedTokenGivesItsMemoryBack) {
  AccessToken token(R"({"access_token":")" + std::string(100000, 't') + R"(","expires_in":3600})");
  EXPECT_GE(token.size(), 100000U);
  token.clear();
  EXPECT_LT(token.size(), 100U);
}

TEST_F(AccessTokenTest, Levels) {
  const struct {
    int level;
    std::string line;
    std::string json;
  } rows[] = {
      {LOG_LEVEL_DEBUG, "AccessToken: Access token: ", answer("3600")},
      {LOG_LEVEL_INFO, "AccessToken: Access token expires in 3600 seconds", answer("3600")},
      {LOG_LEVEL_ERROR, "AccessToken: No access_token found in {}", "{}"},
      {LOG_LEVEL_ERROR, "AccessToken: No token expiration time found", "{}"},
      {LOG_LEVEL_ERROR, "AccessToken: Error processing toke json: x Error:Input is not a valid object", "x"},
  };
  for (const auto& row : rows) {
    EXPECT_TRUE(isLoggedAt(row.level, row.line, [&] { AccessToken{row.json}; }));
  }
}

}  // namespace
}  // namespace test
