// Values that are deep, long or many, on a thread whose stack has no room for a call a level. Times that grow with the
// square of the length would take hours.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "client/JsonText.h"
#include "support/Repeated.h"
#include "support/SmallStack.h"

namespace {

using test::JsonText;
using test::repeated;

constexpr std::size_t MILLION = 1000000;

/// A text that opens a million levels, and the closing of all of them.
struct Nest {
  std::string opening;
  std::string closing;
};

const std::vector<Nest>& nests() {
  static const std::vector<Nest> all = {{repeated("[", MILLION), repeated("]", MILLION)},
                                        {repeated("{\"a\":", MILLION), repeated("}", MILLION)},
                                        {repeated("[{\"a\":", MILLION / 2), repeated("}]", MILLION / 2)}};
  return all;
}

/// Runs on a small stack, within a minute.
void runSoon(const std::function<void()>& action) {
  const auto begin = std::chrono::steady_clock::now();
  test::runOnSmallStack(action);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::minutes(1));
}

TEST(ClientJsonLargeInput, MillionLevelsAreTaken) {
  for (const Nest& nest : nests()) {
    const std::string text = nest.opening + " \"x\" " + nest.closing;
    runSoon([&] {
      const JsonText parsed(text + " ");
      EXPECT_TRUE(parsed.isValue());
      EXPECT_TRUE(parsed.valueText() == text);
    });
  }
}

TEST(ClientJsonLargeInput, MillionLevelsAreAMemberAndAnElement) {
  for (const Nest& nest : nests()) {
    const std::string deep = nest.opening + "1" + nest.closing;
    runSoon([&] {
      const JsonText object("{\"before\":" + deep + ",\"wanted\":" + deep + "}");
      ASSERT_TRUE(object.isValue());
      EXPECT_TRUE(object.member("wanted") == deep);
      const JsonText array("[" + deep + ",2]");
      ssoclient_json first{};
      ASSERT_TRUE(array.isValue() && ssoclient_json_first_element(array.value(), &first));
      EXPECT_TRUE(test::textOf(first) == deep);
    });
  }
}

TEST(ClientJsonLargeInput, MillionLevelsThatDoNotCloseAreRefused) {
  for (const Nest& nest : nests()) {
    const std::string closing = nest.closing.substr(1);
    const char other = nest.closing.back() == ']' ? '}' : ']';
    runSoon([&] {
      EXPECT_FALSE(JsonText(nest.opening).hasValue());
      EXPECT_FALSE(JsonText(nest.opening + "1" + closing).hasValue());
      EXPECT_FALSE(JsonText(nest.opening + "1" + closing + other).hasValue());
    });
  }
}

TEST(ClientJsonLargeInput, MillionMembersAndElements) {
  const std::string members = "{" + repeated("\"a\":1,", MILLION) + "\"b\":2}";
  const std::string elements = "[" + repeated("1,", MILLION) + "2]";
  runSoon([&] {
    const JsonText object(members);
    ASSERT_TRUE(object.isValue());
    EXPECT_EQ(object.member("b"), "2");
    ssoclient_json value{};
    EXPECT_EQ(ssoclient_json_member(object.value(), "a", &value), MILLION);
    EXPECT_TRUE(JsonText(elements).isValue());
  });
}

TEST(ClientJsonLargeInput, LongStringsNumbersAndWhiteSpace) {
  const std::string space(MILLION, ' ');
  const std::string digits(MILLION, '7');
  const std::string escapes = repeated("\\/\\u00e9", MILLION / 8);
  runSoon([&] {
    const JsonText text(space + "{" + space + "\"a\"" + space + ":" + space + digits + "." + digits + "e" + digits +
                        space + ",\"b\":\"" + escapes + "\"" + space + "}" + space);
    ASSERT_TRUE(text.isValue());
    EXPECT_TRUE(text.member("a") == digits + "." + digits + "e" + digits);
    ssoclient_json string{};
    ASSERT_EQ(ssoclient_json_member(text.value(), "b", &string), 1U);
    EXPECT_TRUE(test::decoded(string) == repeated("/\xc3\xa9", MILLION / 8));
  });
}

}  // namespace
