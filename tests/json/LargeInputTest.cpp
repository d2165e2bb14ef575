// Values that are deep, long or many, on a thread whose stack has no room for a call a level.

#include <gtest/gtest.h>

#include <string>

#include "json/json.h"
#include "support/Repeated.h"
#include "support/SmallStack.h"

namespace {

using json::jobject;
using json::jtype;
using json::reader;
using test::repeated;

constexpr std::size_t DEPTH = 1000000;
constexpr std::size_t KEYS = 50000;
constexpr std::size_t LONG = 4 * 1024 * 1024;

/// A text that opens so many levels, a value, and the closing of all of them.
struct Nest {
  std::string opening;
  std::string closing;

  std::string around(const std::string& value) const { return opening + value + closing; }
};

const Nest& arrays() {
  static const Nest nest{repeated("[", DEPTH), repeated("]", DEPTH)};
  return nest;
}

const Nest& objects() {
  static const Nest nest{repeated("{\"a\":", DEPTH), repeated("}", DEPTH)};
  return nest;
}

const Nest& mixed() {
  static const Nest nest{repeated("[{\"a\":", DEPTH / 2), repeated("}]", DEPTH / 2)};
  return nest;
}

/// Pushes until a character is rejected; the number of those that were not.
std::size_t pushed(reader& target, const std::string& text) {
  std::size_t count = 0;
  while (count < text.size() && target.push(text[count]) != reader::REJECTED) {
    ++count;
  }
  return count;
}

TEST(JsonLargeInput, MillionLevelsArePushedAndReadOut) {
  for (const Nest* nest : {&arrays(), &objects(), &mixed()}) {
    const std::string text = nest->around("1");
    std::size_t accepted = 0;
    bool valid = false;
    std::string readout;
    test::runOnSmallStack([&] {
      reader target;
      accepted = pushed(target, text);
      valid = target.is_valid();
      readout = target.readout();
    });
    EXPECT_EQ(accepted, text.size());
    EXPECT_TRUE(valid);
    EXPECT_TRUE(readout == text);
  }
}

TEST(JsonLargeInput, MillionOpenLevelsAreNotValidAndAreCleared) {
  for (const Nest* nest : {&arrays(), &objects(), &mixed()}) {
    std::size_t accepted = 0;
    bool valid = true;
    std::string open;
    std::string afterwards;
    reader::push_result answer = reader::ACCEPTED;
    test::runOnSmallStack([&] {
      reader target;
      accepted = pushed(target, nest->opening);
      valid = target.is_valid();
      open = target.readout();
      answer = target.push('x');
      target.clear();
      pushed(target, "[1]");
      afterwards = target.readout();
      pushed(target, nest->opening);
    });
    EXPECT_EQ(accepted, nest->opening.size());
    EXPECT_FALSE(valid);
    EXPECT_EQ(open, nest->opening.substr(0, 1));
    EXPECT_EQ(answer, reader::REJECTED);
    EXPECT_EQ(afterwards, "[1]");
  }
}

TEST(JsonLargeInput, MillionLevelsAreParsed) {
  for (const Nest* nest : {&arrays(), &objects(), &mixed()}) {
    const std::string text = nest->around(" \"x\" ");
    const std::string compact = nest->around("\"x\"");
    json::parse_results results;
    std::string document;
    std::string first;
    test::runOnSmallStack([&] {
      results = json::parse_value(text.c_str());
      const jobject parsed = jobject::parse(text);
      document = parsed.as_string();
      first = parsed.at(0).ref();
    });
    EXPECT_EQ(results.type, json::type_of(text[0]));
    EXPECT_TRUE(results.value == compact);
    EXPECT_EQ(results.remainder, text.c_str() + text.size());
    EXPECT_TRUE(document == compact);
    EXPECT_TRUE(compact.find(first) != std::string::npos && first.size() + 8 > compact.size());
  }
}

TEST(JsonLargeInput, MillionOpenLevelsAreRefused) {
  for (const Nest* nest : {&arrays(), &objects(), &mixed()}) {
    jtype type = jtype::jnull;
    std::string error;
    test::runOnSmallStack([&] {
      type = json::parse_value(nest->opening.c_str()).type;
      try {
        jobject::parse(nest->opening);
      } catch (const json::parsing_error& thrown) {
        error = thrown.what();
      }
    });
    EXPECT_EQ(type, jtype::not_valid);
    EXPECT_EQ(error, "Input is not a valid object");
  }
}

TEST(JsonLargeInput, MillionLevelsAreAPairsValue) {
  const std::string text = "\"k\":" + arrays().around("");
  std::size_t accepted = 0;
  std::string readout;
  test::runOnSmallStack([&] {
    json::kvp_reader target;
    accepted = pushed(target, text);
    readout = target.readout();
  });
  EXPECT_EQ(accepted, text.size());
  EXPECT_TRUE(readout == text);
}

TEST(JsonLargeInput, MillionElementsAreSplit) {
  const std::string text = "[" + repeated("1,", DEPTH) + "\"x\"]";
  std::vector<std::string> elements;
  std::size_t size = 0;
  test::runOnSmallStack([&] {
    elements = json::parse_array(text.c_str());
    size = jobject::parse(text).size();
  });
  ASSERT_EQ(elements.size(), DEPTH + 1);
  EXPECT_EQ(elements.front(), "1");
  EXPECT_EQ(elements.back(), "x");
  EXPECT_EQ(size, DEPTH + 1);
}

TEST(JsonLargeInput, ThousandLevelsArePretty) {
  constexpr std::size_t levels = 1000;
  const std::string text = repeated("[", levels) + "1" + repeated("]", levels);
  std::string pretty;
  test::runOnSmallStack([&] { pretty = jobject::parse(text).pretty(0); });
  EXPECT_EQ(jobject::parse(pretty).as_string(), text);
  EXPECT_NE(pretty.find("\n" + std::string(levels, '\t') + "1\n"), std::string::npos);
}

/// The keys k0, k1, ... as members of an object that is still open.
std::string manyMembers() {
  std::string text = "{";
  for (std::size_t index = 0; index < KEYS; ++index) {
    text += "\"k" + std::to_string(index) + "\":" + std::to_string(index) + ",";
  }
  return text;
}

TEST(JsonLargeInput, FiftyThousandKeysKeepTheirOrder) {
  const jobject object = jobject::parse(manyMembers() + "}");
  const std::vector<std::string> keys = object.list_keys();
  ASSERT_EQ(keys.size(), KEYS);
  for (std::size_t index = 0; index < KEYS; ++index) {
    ASSERT_EQ(keys[index], "k" + std::to_string(index));
    ASSERT_EQ(object.at(index).ref(), std::to_string(index));
  }
  EXPECT_EQ(object["k49999"].as_string(), "49999");
  EXPECT_TRUE(object.as_string() == manyMembers().substr(0, manyMembers().size() - 1) + "}");
}

std::string parseError(const std::string& text) {
  try {
    jobject::parse(text);
    return "";
  } catch (const json::parsing_error& thrown) {
    return thrown.what();
  }
}

/// So many members, all of whose keys have one length, one beginning and one end.
std::string alikeMembers(std::size_t count) {
  std::string text = "{";
  for (std::size_t index = 0; index < count; ++index) {
    text += "\"the same beginning " + std::to_string(100000 + index) + " and the same end\":0,";
  }
  return text;
}

TEST(JsonLargeInput, KeysThatAreAlikeAreToldApart) {
  for (const std::size_t count : {2U, 63U, 64U, 65U, 66U, 1023U, 1024U, 1025U, 1026U, 5000U}) {
    const std::string members = alikeMembers(count);
    EXPECT_EQ(jobject::parse(members + "}").size(), count);
    const std::string first = members.substr(1, members.find(',') - 1);
    EXPECT_EQ(parseError(members + first + "}"), "Key conflict") << count;
    EXPECT_EQ(parseError(members + "\"the same beginning " + std::to_string(99999 + count) + " and the same end\":1}"),
              "Key conflict")
        << count;
    EXPECT_EQ(parseError(members + "\"the same end\":1}"), "") << count;
  }
}

TEST(JsonLargeInput, OfSeveralErrorsTheFirstIsReported) {
  for (const std::size_t count : {1U, 63U, 64U, 65U, 66U, 1100U}) {
    const std::string members = alikeMembers(count);
    const std::string again = members.substr(1, members.find(',') - 1);
    for (const char* rest : {",}x", ",\"b\" 1}", ",\"\":1}", ",1:2}", ",\"b\":", ",\"b\":tru}", ", "}) {
      EXPECT_EQ(parseError(members + again + rest), "Key conflict") << count << rest;
    }
    EXPECT_EQ(parseError(members + "\"\":1," + again + "}"), "Missing key") << count;
    EXPECT_EQ(parseError(members + "\"b\" 1," + again + "}"), "Input is not a valid object") << count;
    EXPECT_EQ(parseError(members + again + " x}"), "Input is not a valid object") << count;
  }
}

TEST(JsonLargeInput, EntriesMayBecomeLongerOrShorterOnTheWay) {
  const auto sizeOf = [](const std::string& text) { return jobject::parse(text).size(); };
  const std::string shortOnes = repeated("1,", 3000);
  const std::string longOnes = repeated("\"" + std::string(1000, 'x') + "\",", 1500);
  EXPECT_EQ(sizeOf("[" + shortOnes + longOnes + "1]"), 4501U);
  EXPECT_EQ(sizeOf("[" + longOnes + shortOnes + "1]"), 4501U);
  EXPECT_EQ(sizeOf("[" + repeated("1,", 1024) + "\"" + std::string(LONG, 'x') + "\"]"), 1025U);
}

TEST(JsonLargeInput, RepeatedKeyAmongFiftyThousandIsFound) {
  for (const char* repeatedKey : {"k0", "k15", "k16", "k17", "k25000", "k49999"}) {
    EXPECT_EQ(parseError(manyMembers() + "\"" + repeatedKey + "\":1}"), "Key conflict") << repeatedKey;
  }
}

TEST(JsonLargeInput, LongStringsNumbersAndWhiteSpace) {
  const std::string body(LONG, 'x');
  const std::string digits(LONG, '7');
  const std::string space(LONG, ' ');
  const std::string text = "{" + space + "\"" + body + "\"" + space + ":" + space + digits + space + ",\"s\":\"" +
                           body + "\\n" + body + "\"" + space + "}" + body;
  std::vector<std::string> keys;
  std::string number;
  std::string decoded;
  test::runOnSmallStack([&] {
    const jobject object = jobject::parse(text);
    keys = object.list_keys();
    number = object.at(0).ref();
    decoded = object["s"].as_string();
  });
  ASSERT_EQ(keys.size(), 2U);
  EXPECT_TRUE(keys[0] == body);
  EXPECT_TRUE(number == digits);
  EXPECT_TRUE(decoded == body + "\n" + body);
}

TEST(JsonLargeInput, LongStringSurvivesEscapingAndDecoding) {
  const std::string plain = repeated("a/\"\\\n\t\x01\xff", LONG / 8);
  EXPECT_TRUE(json::decode_string(json::escape_string(plain.c_str()).c_str()) == plain);
}

}  // namespace
