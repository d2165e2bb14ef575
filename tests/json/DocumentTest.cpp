// json::jobject: building, parsing, changing and looking up.

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "json/json.h"
#include "support/ParsingError.h"

namespace {

using json::jobject;
using test::parsingError;

using Texts = std::vector<std::string>;

template <typename Function>
std::string invalidKey(const Function& function) {
  try {
    function();
  } catch (const json::invalid_key& thrown) {
    return thrown.what();
  }
  return "nothing was thrown";
}

std::string parseError(const std::string& text) {
  return parsingError([&] { jobject::parse(text); });
}

TEST(JsonDocument, EmptyObjectAndEmptyArray) {
  const jobject object;
  EXPECT_FALSE(object.is_array());
  EXPECT_EQ(object.size(), 0U);
  EXPECT_EQ(object.as_string(), "{}");
  const jobject array(true);
  EXPECT_TRUE(array.is_array());
  EXPECT_EQ(array.size(), 0U);
  EXPECT_EQ(array.as_string(), "[]");
}

TEST(JsonDocument, CopiesKeepKindAndEntries) {
  const jobject original = jobject::parse("[1,\"a\"]");
  jobject copy(original);
  EXPECT_TRUE(copy.is_array());
  EXPECT_EQ(copy.as_string(), "[1,\"a\"]");
  copy += jobject::kvp("", "2");
  EXPECT_EQ(copy.as_string(), "[1,\"a\",2]");
  EXPECT_EQ(original.as_string(), "[1,\"a\"]");
  jobject assigned = jobject::parse("{\"a\":1}");
  assigned = original;
  EXPECT_TRUE(assigned.is_array());
  EXPECT_EQ(assigned.as_string(), "[1,\"a\"]");
  EXPECT_TRUE((std::has_virtual_destructor_v<jobject>));
}

TEST(JsonDocument, ParsesArrayWithWhiteSpace) {
  const jobject array = jobject::parse("  [ 1 , \"a\" ]");
  ASSERT_EQ(array.size(), 2U);
  EXPECT_TRUE(array.is_array());
  EXPECT_EQ(array.at(0).ref(), "1");
  EXPECT_EQ(array.at(1).ref(), "\"a\"");
  EXPECT_EQ(array.as_string(), "[1,\"a\"]");
}

TEST(JsonDocument, StoresNestedValuesCompact) {
  const jobject object = jobject::parse("{\"a\" : { \"b\" : [ 1 , 2 ] } }");
  EXPECT_EQ(object["a"].ref(), "{\"b\":[1,2]}");
  EXPECT_EQ(object["a"].as_object()["b"].ref(), "[1,2]");
}

TEST(JsonDocument, KeepsTheOrderOfTheText) {
  const jobject object = jobject::parse(" { \"z\" : 1 , \"a\" : \" x \" ,\n\"m\":null , \"b\":true}");
  EXPECT_EQ(object.list_keys(), (Texts{"z", "a", "m", "b"}));
  EXPECT_EQ(object.as_string(), "{\"z\":1,\"a\":\" x \",\"m\":null,\"b\":true}");
}

TEST(JsonDocument, IgnoresTextBehindTheClosingBracket) {
  for (const char* text : {"{\"a\":1} garbage", "{\"a\":1}}", "{\"a\":1},{\"a\":", "{\"a\":1}\""}) {
    EXPECT_EQ(jobject::parse(text).as_string(), "{\"a\":1}") << text;
  }
  EXPECT_EQ(jobject::parse("[1]]").as_string(), "[1]");
  EXPECT_EQ(jobject::parse("{}[").as_string(), "{}");
}

TEST(JsonDocument, AcceptsCommaBeforeTheClosingBracket) {
  EXPECT_EQ(jobject::parse("{\"a\":1,}").as_string(), "{\"a\":1}");
  EXPECT_EQ(jobject::parse("[1,2,]").as_string(), "[1,2]");
}

TEST(JsonDocument, RefusesWhiteSpaceBetweenThatCommaAndTheBracket) {
  EXPECT_EQ(parseError("{\"a\":1, }"), "Input is not a valid object");
  EXPECT_EQ(parseError("[1, ]"), "Input is not a valid object");
}

TEST(JsonDocument, RefusesThatCommaInNestedValues) {
  EXPECT_EQ(parseError("{\"a\":[1,]}"), "Input is not a valid object");
  EXPECT_EQ(parseError("[{\"a\":1,}]"), "Input is not a valid object");
}

TEST(JsonDocument, RefusesWhatIsNoDocument) {
  for (const char* text : {"",
                           "  ",
                           "1",
                           "\"{}\"",
                           "true",
                           "null",
                           "x",
                           "}",
                           "]",
                           ",",
                           "{",
                           "[",
                           " { ",
                           "[ ",
                           "{1:1}",
                           "{a:1}",
                           "{'a':1}",
                           "{\"a\" 1}",
                           "{\"a\"}",
                           "{\"a\",1}",
                           "{\"a\":1",
                           "[1",
                           "{\"a\":1 \"b\":2}",
                           "[1 2]",
                           "[01]",
                           "{\"a\":01}",
                           "{\"a\":1]",
                           "[1}",
                           "{,}",
                           "[,]",
                           "[1,,2]",
                           "{\"a\":1,,\"b\":2}",
                           "{\"a\":}",
                           "{\"a\":tru}",
                           "[tru]",
                           "{\"a\":[}",
                           "{null:1}",
                           "{[]:1}",
                           "{\"a\"::1}",
                           "{\"a\":1,",
                           "[1,",
                           "{\"a\":\"x}",
                           "{\"a",
                           "{\"a\\/b\":1}",
                           "\xef\xbb\xbf{}"}) {
    EXPECT_EQ(parseError(text), "Input is not a valid object") << text;
  }
}

TEST(JsonDocument, TextThatEndsWhereAValueIsDueThrowsOnlyWhitespace) {
  for (const char* text : {"{\"a\":", "{\"a\": ", "{\"a\":1,\"b\":\n", "[1, ", "[1,2,\t", "{\"a\":1, "}) {
    EXPECT_EQ(parseError(text), "Input was only whitespace") << text;
  }
}

TEST(JsonDocument, RepeatedKeyThrowsKeyConflict) {
  for (const char* text : {"{\"a\":1,\"a\":2}", "{\"a\":1,\"b\":2,\"a\":1}", "{\"a\":1,\"\\u0041a\":2}",
                           "{\"\\n\":1,\"\n\":2}", "{\"a\":1,\"a\":2,"}) {
    EXPECT_EQ(parseError(text), "Key conflict") << text;
  }
}

TEST(JsonDocument, EmptyKeyThrowsMissingKey) {
  for (const char* text : {"{\"\":1}", "{\"a\":1,\"\":2}", "{\"\\u0041\":1}"}) {
    EXPECT_EQ(parseError(text), "Missing key") << text;
  }
}

TEST(JsonDocument, ErrorsOfAnEntryComeBeforeItIsAppended) {
  EXPECT_EQ(parseError("{\"a\":1,\"a\":2 x}"), "Input is not a valid object");
  EXPECT_EQ(parseError("{\"\":tru}"), "Input is not a valid object");
  EXPECT_EQ(parseError("{\"\":"), "Input was only whitespace");
}

TEST(JsonDocument, SameKeyInDifferentObjectsIsNoConflict) {
  EXPECT_EQ(jobject::parse("{\"a\":{\"a\":{\"a\":1}},\"b\":[{\"a\":1},{\"a\":1}]}").size(), 2U);
  EXPECT_EQ(jobject::parse("{\"a\":{\"b\":1,\"b\":2}}").as_string(), "{\"a\":{\"b\":1,\"b\":2}}");
}

TEST(JsonDocument, KeysAreDecoded) {
  const jobject object = jobject::parse(R"({"a\"b":1,"c\\d":2,"e\u0041f":3,"g\n":4,"h/i":5})");
  EXPECT_EQ(object.list_keys(), (Texts{"a\"b", "c\\d", "ef", "g\n", "h/i"}));
  EXPECT_EQ(object.as_string(), R"({"a\"b":1,"c\\d":2,"ef":3,"g\n":4,"h\/i":5})");
}

TEST(JsonDocument, ParsesTextUpToItsFirstNul) {
  EXPECT_EQ(jobject::parse(std::string("{\"a\":1}\0x", 9)).as_string(), "{\"a\":1}");
  EXPECT_EQ(parseError(std::string("{\"a\":1\0}", 8)), "Input is not a valid object");
  EXPECT_EQ(parseError(std::string("\0{}", 3)), "Input is not a valid object");
}

TEST(JsonDocument, HasKeyComparesByteForByte) {
  const jobject object = jobject::parse("{\"key\":1,\"\xc3\xa9\":2}");
  EXPECT_TRUE(object.has_key("key"));
  EXPECT_TRUE(object.has_key("\xc3\xa9"));
  for (const std::string& other : {std::string("Key"), std::string("ke"), std::string("keys"), std::string(""),
                                   std::string("key\0", 4), std::string("\xc3")}) {
    EXPECT_FALSE(object.has_key(other)) << other;
  }
}

TEST(JsonDocument, ArrayHasNoKey) {
  const jobject array = jobject::parse("[1,\"a\"]");
  EXPECT_FALSE(array.has_key(""));
  EXPECT_FALSE(array.has_key("a"));
  EXPECT_FALSE(array.has_key("0"));
}

TEST(JsonDocument, SetReplacesInPlaceOrAppends) {
  jobject object = jobject::parse("{\"a\":1,\"b\":2}");
  object.set("a", "[ 3 ]");
  object.set("c", "4");
  EXPECT_EQ(object.as_string(), "{\"a\":[ 3 ],\"b\":2,\"c\":4}");
  object.set("", "5");
  EXPECT_EQ(object.as_string(), "{\"a\":[ 3 ],\"b\":2,\"c\":4,\"\":5}");
  EXPECT_TRUE(object.has_key(""));
}

TEST(JsonDocument, SetOnAnArrayThrowsTheKey) {
  jobject array(true);
  EXPECT_EQ(invalidKey([&] { array.set("the key", "1"); }), "the key");
  EXPECT_EQ(array.size(), 0U);
}

TEST(JsonDocument, BracketOperatorOnAnArrayThrowsTheKey) {
  jobject array(true);
  const jobject& constant = array;
  EXPECT_EQ(invalidKey([&] { array["a"]; }), "a");
  EXPECT_EQ(invalidKey([&] { constant["b"]; }), "b");
  EXPECT_EQ(invalidKey([&] { array["c"] = "x"; }), "c");
}

TEST(JsonDocument, ReadingAMissingKeyThrowsTheKey) {
  jobject object = jobject::parse("{\"a\":1}");
  const jobject& constant = object;
  EXPECT_EQ(invalidKey([&] { object["missing"].ref(); }), "missing");
  EXPECT_EQ(invalidKey([&] { constant["missing"].as_string(); }), "missing");
  EXPECT_EQ(invalidKey([&] { constant["A"].is_string(); }), "A");
  EXPECT_EQ(invalidKey([&] { object[""].as_object(); }), "");
  EXPECT_EQ(invalidKey([&] { static_cast<void>(static_cast<int>(object["i"])); }), "i");
}

TEST(JsonDocument, BracketOperatorDoesNotNeedTheKey) {
  jobject object;
  EXPECT_NO_THROW(object["later"]);
  EXPECT_EQ(object.size(), 0U);
  const auto later = static_cast<const jobject&>(object)["later"];
  object.set("later", "7");
  EXPECT_EQ(later.ref(), "7");
}

TEST(JsonDocument, RemoveErasesTheKey) {
  jobject object = jobject::parse("{\"a\":1,\"b\":2,\"c\":3}");
  object.remove("b");
  EXPECT_EQ(object.as_string(), "{\"a\":1,\"c\":3}");
  object.remove("b");
  object.remove("");
  EXPECT_EQ(object.as_string(), "{\"a\":1,\"c\":3}");
  object.remove("a");
  object.remove("c");
  EXPECT_EQ(object.as_string(), "{}");
}

TEST(JsonDocument, RemoveSkipsTheSecondOfTwoAdjacentEqualKeys) {
  struct Row {
    const char* before;
    const char* after;
  };
  // Only an array can hold equal keys: its elements' are empty.
  for (const Row row : {Row{"[1]", "[]"}, Row{"[1,2]", "[2]"}, Row{"[1,2,3]", "[2]"}, Row{"[1,2,3,4,5]", "[2,4]"}}) {
    jobject array = jobject::parse(row.before);
    array.remove("");
    EXPECT_EQ(array.as_string(), row.after) << row.before;
  }
  jobject array = jobject::parse("[1,2]");
  array.remove("1");
  EXPECT_EQ(array.as_string(), "[1,2]");
}

TEST(JsonDocument, AppendGuardsKeysInItsOrder) {
  jobject object = jobject::parse("{\"a\":1}");
  object += jobject::kvp("b", "2");
  EXPECT_EQ(object.as_string(), "{\"a\":1,\"b\":2}");
  EXPECT_EQ(parsingError([&] { object += jobject::kvp("a", "3"); }), "Key conflict");
  EXPECT_EQ(parsingError([&] { object += jobject::kvp("", "3"); }), "Missing key");
  object.set("", "4");
  EXPECT_EQ(parsingError([&] { object += jobject::kvp("", "3"); }), "Key conflict");
  EXPECT_EQ(object.as_string(), "{\"a\":1,\"b\":2,\"\":4}");
  jobject array(true);
  array += jobject::kvp("", "1");
  array += jobject::kvp("", "1");
  EXPECT_EQ(parsingError([&] { array += jobject::kvp("a", "2"); }), "Array cannot have key");
  EXPECT_EQ(array.as_string(), "[1,1]");
}

TEST(JsonDocument, AppendTakesAnEntryAsItsTwoTexts) {
  jobject::kvp entry;
  entry.key = "a";
  entry.value = "[1]";
  jobject object;
  object += entry;
  EXPECT_EQ(object.as_string(), "{\"a\":[1]}");
}

TEST(JsonDocument, AtGivesACopyOfTheValue) {
  jobject object = jobject::parse("{\"a\":\"x\\ny\",\"b\":[1]}");
  const auto value = object.at(0);
  object.set("a", "2");
  EXPECT_EQ(value.ref(), "\"x\\ny\"");
  EXPECT_EQ(value.as_string(), "x\ny");
  EXPECT_TRUE(object.at(1).is_array());
  EXPECT_EQ(object.at(1).as_object().at(0).ref(), "1");
}

TEST(JsonDocument, AtBehindTheEndThrowsOutOfRange) {
  const jobject array = jobject::parse("[1]");
  EXPECT_THROW(array.at(1), std::out_of_range);
  EXPECT_THROW(array.at(static_cast<std::size_t>(-1)), std::out_of_range);
  EXPECT_THROW(jobject().at(0), std::out_of_range);
}

TEST(JsonDocument, ListKeysOfAnArrayIsEmpty) {
  EXPECT_EQ(jobject::parse("[1,2]").list_keys(), Texts());
  EXPECT_EQ(jobject().list_keys(), Texts());
}

}  // namespace
