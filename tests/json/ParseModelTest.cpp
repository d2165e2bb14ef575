// parse_value, jobject::parse, parse_array and decode_string compared with the same written down step by step, one
// character at a time.

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "json/json.h"
#include "support/JsonCorpus.h"
#include "support/JsonDocumentModel.h"
#include "support/RandomJson.h"

namespace {

/// What a function returned, described, or what it threw.
template <typename Function>
std::string outcome(const Function& function) {
  try {
    return function();
  } catch (const json::parsing_error& thrown) {
    return std::string("parsing_error: ") + thrown.what();
  }
}

std::string describe(const json::parse_results& results, const char* input) {
  return "type " + std::to_string(static_cast<int>(results.type)) + " value " + testing::PrintToString(results.value) +
         " rest at " + std::to_string(results.remainder - input);
}

std::string describe(const json::jobject& document) {
  std::string text = document.is_array() ? "array" : "object";
  const std::vector<std::string> keys = document.list_keys();
  for (std::size_t index = 0; index < document.size(); ++index) {
    text += "\n" + (document.is_array() ? "" : keys.at(index)) + "=" + document.at(index).ref();
  }
  return text;
}

std::string describe(const test::DocumentModel& document) {
  std::string text = document.array ? "array" : "object";
  for (const auto& entry : document.entries) {
    text += "\n" + entry.first + "=" + entry.second;
  }
  return text;
}

void expectParsedAlike(const std::string& text) {
  if (testing::Test::HasFailure()) {
    return;  // one text is enough to look into
  }
  const char* input = text.c_str();
  EXPECT_EQ(outcome([&] { return describe(json::parse_value(input), input); }),
            outcome([&] { return describe(test::modelParseValue(input), input); }))
      << "parse_value of " << text;
  EXPECT_EQ(outcome([&] { return describe(json::jobject::parse(input)); }),
            outcome([&] { return describe(test::modelParse(input)); }))
      << "jobject::parse of " << text;
  EXPECT_EQ(outcome([&] { return testing::PrintToString(json::parse_array(input)); }),
            outcome([&] { return testing::PrintToString(test::modelParseArray(input)); }))
      << "parse_array of " << text;
  EXPECT_EQ(outcome([&] { return json::decode_string(input); }),
            outcome([&] { return test::modelDecodeString(input); }))
      << "decode_string of " << text;
}

TEST(JsonParsing, ReadsTheExpectedValuesOfTheCorpus) {
  for (const test::JsonSample& sample : test::jsonSamples()) {
    const json::parse_results results = json::parse_value(sample.text);
    EXPECT_EQ(results.value, sample.value) << sample.text;
    EXPECT_STREQ(results.remainder, sample.rest) << sample.text;
    EXPECT_EQ(results.type, results.value.empty() ? json::jtype::not_valid : json::type_of_text(sample.text));
  }
}

TEST(JsonParsingAgainstModel, TextsCutAtEveryLength) {
  for (const test::JsonSample& sample : test::jsonSamples()) {
    const std::string text = sample.text;
    for (std::size_t length = 0; length <= text.size(); ++length) {
      expectParsedAlike(text.substr(0, length));
    }
  }
}

TEST(JsonParsingAgainstModel, TextsFollowedByGarbage) {
  for (const test::JsonSample& sample : test::jsonSamples()) {
    for (const char* garbage : {" ", ",", "]", "}", ":", "\"", "x", "0", "\\", " ,", " ]", " }", "\t\"", " 1"}) {
      expectParsedAlike(sample.text + std::string(garbage));
      expectParsedAlike(sample.text + std::string(garbage) + sample.text);
    }
  }
}

TEST(JsonParsingAgainstModel, TextsAsElementsAndValues) {
  for (const test::JsonSample& sample : test::jsonSamples()) {
    const std::string text = sample.text;
    for (const char* closing :
         {"", " ", ",", ", ", "]", " ]", ",]", ", ]", ",1]", "}", " }", ",}", ", }", ",\"b\":2}"}) {
      expectParsedAlike("[" + text + closing);
      expectParsedAlike("[ 1 , " + text + closing);
      expectParsedAlike("{\"a\":" + text + closing);
      expectParsedAlike(" { " + text + " : " + text + closing);
      expectParsedAlike("{\"a\":1," + text + ":2" + closing);
    }
  }
}

TEST(JsonParsingAgainstModel, RandomTexts) {
  test::RandomJson random;
  for (std::size_t round = test::RandomJson::rounds(100000); round > 0 && !HasFailure(); --round) {
    SCOPED_TRACE("SSO_TEST_SEED=" + std::to_string(random.seed()));
    expectParsedAlike(random.text());
  }
}

/// Runs that are taken at once instead of character by character, ending at every place.
TEST(JsonParsingAgainstModel, LongRuns) {
  const std::string digits(3000, '7');
  const std::string body(3000, 'x');
  const std::string blanks(3000, ' ');
  for (const std::string end :
       {"", "]", "}", "\"", "\\", "\\\"", "\\u00e9\"", "\\/", ".", ".5", "e", "e5", " ", " 5", ",", "x", "-"}) {
    for (const std::string& text : {digits + end, "1." + digits + end, "1e" + digits + end, "0" + digits + end,
                                    "\"" + body + end, "\"" + body + "\\n" + body + end, blanks + "1" + blanks + end,
                                    "[" + blanks + digits + blanks + end, "{\"" + body + "\"" + blanks + ":" + end,
                                    "{\"a\":" + blanks + digits + blanks + end, "\"" + digits + "\\u" + digits + end}) {
      expectParsedAlike(text);
      expectParsedAlike("[" + text + "]");
      expectParsedAlike("{\"k\":" + text + "}");
    }
  }
}

TEST(JsonParsingAgainstModel, ManyKeysWithRepetitionsAmongThem) {
  for (std::size_t count = 1; count < 70; ++count) {
    for (std::size_t repeated = 0; repeated < count; ++repeated) {
      std::string text = "{";
      for (std::size_t index = 0; index < count; ++index) {
        text += "\"k" + std::to_string(index * 7 % 101) + "\":" + std::to_string(index) + ",";
      }
      expectParsedAlike(text + "\"k" + std::to_string(repeated * 7 % 101) + "\":0}");
      expectParsedAlike(text + "\"new\":0}");
      expectParsedAlike(text + "\"\":0}");
    }
  }
}

}  // namespace
