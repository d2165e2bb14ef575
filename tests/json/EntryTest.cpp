// Reading and writing values through a document's accessors.

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "json/json.h"

namespace {

using json::jobject;

template <typename T>
T read(const std::string& value_text) {
  jobject object;
  object.set("key", value_text);
  const T from_proxy = object["key"];
  const T from_const_proxy = static_cast<const jobject&>(object)["key"];
  const T from_value = object.at(0);
  EXPECT_EQ(from_proxy, from_const_proxy) << value_text;
  EXPECT_EQ(from_proxy, from_value) << value_text;
  return from_proxy;
}

TEST(JsonEntry, ProxyOfAnArrayThrowsSourceCannotBeAnArray) {
  jobject array(true);
  const auto expectThrown = [](const auto& make) {
    try {
      make();
      ADD_FAILURE();
    } catch (const std::logic_error& thrown) {
      EXPECT_STREQ(thrown.what(), "Source cannot be an array");
    }
  };
  expectThrown([&] { jobject::const_proxy(array, "a"); });
  expectThrown([&] { jobject::proxy(array, "a"); });
}

TEST(JsonEntry, AccessorsAreEntries) {
  EXPECT_TRUE((std::is_base_of_v<jobject::entry, jobject::const_proxy>));
  EXPECT_TRUE((std::is_base_of_v<jobject::const_proxy, jobject::proxy>));
  EXPECT_TRUE((std::is_base_of_v<jobject::entry, jobject::const_value>));
  EXPECT_TRUE((std::is_abstract_v<jobject::entry>));
}

TEST(JsonEntry, AsStringDecodesStringsAndKeepsOtherTexts) {
  struct Row {
    const char* value_text;
    const char* text;
  };
  for (const Row row : {Row{"\"a\"", "a"}, Row{R"("x\u0041y")", "xy"}, Row{R"("a\/b\n")", "a/b\n"}, Row{"\"\"", ""},
                        Row{"12.50", "12.50"}, Row{"true", "true"}, Row{"null", "null"}, Row{"{\"a\":1}", "{\"a\":1}"},
                        Row{"[1, 2]", "[1, 2]"}, Row{"", ""}, Row{"garbage", "garbage"}, Row{" \"a\"", " \"a\""}}) {
    jobject object;
    object.set("key", row.value_text);
    EXPECT_EQ(object["key"].as_string(), row.text);
    EXPECT_EQ(object.at(0).as_string(), row.text);
    const std::string converted = object["key"];
    EXPECT_EQ(converted, row.text);
  }
}

TEST(JsonEntry, AsStringOfABadLiteralThrows) {
  jobject object;
  object.set("key", "\"\\x\"");
  EXPECT_THROW(object["key"].as_string(), json::parsing_error);
}

TEST(JsonEntry, AsObjectParsesTheText) {
  jobject object = jobject::parse("{\"o\":{\"a\":[1,{\"b\":2}]},\"a\":[3],\"s\":\"x\"}");
  const jobject inner = object["o"];
  EXPECT_EQ(inner["a"].as_object().at(1).as_object()["b"].as_string(), "2");
  const jobject array = object["a"].as_object();
  EXPECT_TRUE(array.is_array());
  EXPECT_EQ(array.at(0).ref(), "3");
  EXPECT_THROW(object["s"].as_object(), json::parsing_error);
}

TEST(JsonEntry, ReadsIntegers) {
  EXPECT_EQ(read<int>("12"), 12);
  EXPECT_EQ(read<int>("-12"), -12);
  EXPECT_EQ(read<int>("12abc"), 12);
  EXPECT_EQ(read<int>("1.9"), 1);
  EXPECT_EQ(read<int>("010"), 8);
  EXPECT_EQ(read<int>("0x1F"), 31);
  EXPECT_EQ(read<unsigned int>("4294967295"), 4294967295U);
  EXPECT_EQ(read<unsigned int>("010"), 10U);
  EXPECT_EQ(read<long>("-2147483647"), -2147483647L);
  EXPECT_EQ(read<long>("0x10"), 16L);
  EXPECT_EQ(read<unsigned long>("4294967295"), 4294967295UL);
}

TEST(JsonEntry, ReadsCharactersAndFractions) {
  EXPECT_EQ(read<char>("7"), '7');
  EXPECT_EQ(read<char>("\"x\""), '"');
  EXPECT_EQ(read<float>("0.5"), 0.5F);
  EXPECT_EQ(read<float>("-12.5e1"), -125.0F);
  EXPECT_EQ(read<double>("1e-3"), 1e-3);
  EXPECT_EQ(read<double>("3"), 3.0);
}

TEST(JsonEntry, TextThatDoesNotConvertGivesNoError) {
  for (const char* text : {"abc", "\"12\"", "", "null", "[1]"}) {
    jobject object;
    object.set("key", text);
    EXPECT_NO_THROW({
      static_cast<void>(static_cast<int>(object["key"]));
      static_cast<void>(static_cast<unsigned int>(object["key"]));
      static_cast<void>(static_cast<long>(object["key"]));
      static_cast<void>(static_cast<unsigned long>(object["key"]));
      static_cast<void>(static_cast<char>(object["key"]));
      static_cast<void>(static_cast<float>(object["key"]));
      static_cast<void>(static_cast<double>(object["key"]));
    }) << text;
  }
}

TEST(JsonEntry, ReadsVectors) {
  EXPECT_EQ(read<std::vector<int>>("[1,-2,\"0x10\",\"7\",8.9]"), (std::vector<int>{1, -2, 16, 7, 8}));
  EXPECT_EQ(read<std::vector<unsigned int>>("[1,4294967295]"), (std::vector<unsigned int>{1, 4294967295U}));
  EXPECT_EQ(read<std::vector<long>>("[-1 2]"), (std::vector<long>{-1, 2}));
  EXPECT_EQ(read<std::vector<unsigned long>>("[3]"), (std::vector<unsigned long>{3}));
  EXPECT_EQ(read<std::vector<char>>("[\"a\",\"bc\",4]"), (std::vector<char>{'a', 'b', '4'}));
  EXPECT_EQ(read<std::vector<float>>("[0.5,1e1]"), (std::vector<float>{0.5F, 10.0F}));
  EXPECT_EQ(read<std::vector<double>>("[]"), std::vector<double>());
}

TEST(JsonEntry, VectorOfWhatIsNoArrayThrows) {
  jobject object = jobject::parse("{\"n\":1,\"o\":{}}");
  EXPECT_THROW(static_cast<void>(static_cast<std::vector<int>>(object["n"])), json::parsing_error);
  EXPECT_THROW(static_cast<void>(static_cast<std::vector<double>>(object["o"])), json::parsing_error);
  EXPECT_THROW(static_cast<void>(static_cast<std::vector<char>>(object["missing"])), json::invalid_key);
}

TEST(JsonEntry, TypeTests) {
  struct Row {
    const char* value_text;
    bool string, number, object, array, boolean;
  };
  for (const Row row : {Row{"\"a\"", true, false, false, false, false}, Row{"-1.5", false, true, false, false, false},
                        Row{"{}", false, false, true, false, false}, Row{"[]", false, false, true, true, false},
                        Row{"[1,{}]", false, false, true, true, false}, Row{"true", false, false, false, false, true},
                        Row{"false", false, false, false, false, true}, Row{"null", false, false, false, false, false},
                        Row{"\"a", false, false, false, false, false}, Row{"nope", false, false, false, false, false},
                        Row{"tru", false, false, false, false, false}, Row{"[1", false, false, false, false, false},
                        Row{"1x", false, true, false, false, false}, Row{" 1", false, true, false, false, false},
                        Row{"\"a\\/b\"", false, false, false, false, false}}) {
    jobject object;
    object.set("key", row.value_text);
    const auto value = object.at(0);
    EXPECT_EQ(value.is_string(), row.string) << row.value_text;
    EXPECT_EQ(value.is_number(), row.number) << row.value_text;
    EXPECT_EQ(value.is_object(), row.object) << row.value_text;
    EXPECT_EQ(value.is_array(), row.array) << row.value_text;
    EXPECT_EQ(value.is_bool(), row.boolean) << row.value_text;
  }
}

TEST(JsonEntry, ArrayCountsAsObject) {
  EXPECT_TRUE(jobject::parse("{\"a\":[1]}")["a"].is_object());
}

TEST(JsonEntry, TypeTestOfAnEmptyTextThrows) {
  jobject object;
  object.set("key", " ");
  EXPECT_THROW(object["key"].is_string(), json::parsing_error);
  EXPECT_THROW(object["key"].is_object(), json::parsing_error);
}

TEST(JsonEntry, AssignedStringIsStoredEscaped) {
  jobject object;
  object["a"] = "a/b";
  EXPECT_EQ(object["a"].ref(), R"("a\/b")");
  EXPECT_EQ(object.as_string(), R"({"a":"a\/b"})");
  object["b"] = std::string("say \"hi\"\n");
  EXPECT_EQ(object.as_string(), R"({"a":"a\/b","b":"say \"hi\"\n"})");
  EXPECT_EQ(object["b"].as_string(), "say \"hi\"\n");
  object["a"] = "";
  EXPECT_EQ(object.as_string(), R"({"a":"","b":"say \"hi\"\n"})");
}

TEST(JsonEntry, AssignedStringEndsAtItsFirstNul) {
  jobject object;
  object["a"] = std::string("x\0y", 3);
  EXPECT_EQ(object["a"].ref(), "\"x\"");
}

TEST(JsonEntry, AssignedSlashIsRefusedByTheReader) {
  jobject object;
  object["a"] = "a/b";
  EXPECT_FALSE(object["a"].is_string());
  EXPECT_EQ(object["a"].as_string(), "a/b");
  EXPECT_THROW(jobject::parse(object.as_string()), json::parsing_error);
}

TEST(JsonEntry, AssignedDocumentIsStoredAsItsText) {
  jobject object;
  object["o"] = jobject::parse("{ \"b\" : [ 1 ] }");
  object["a"] = jobject(true);
  EXPECT_EQ(object.as_string(), "{\"o\":{\"b\":[1]},\"a\":[]}");
}

TEST(JsonEntry, AssignmentsReplaceInPlace) {
  jobject object = jobject::parse("{\"a\":1,\"b\":2}");
  object["a"] = "x";
  object["b"] = jobject();
  object["c"] = "y";
  EXPECT_EQ(object.as_string(), "{\"a\":\"x\",\"b\":{},\"c\":\"y\"}");
}

TEST(JsonEntry, SetArrayWritesElementTexts) {
  struct Row {
    std::vector<std::string> values;
    bool quote;
    const char* text;
  };
  const Row rows[] = {{{}, false, "[]"},
                      {{}, true, "[]"},
                      {{"1", "true", "\"a\""}, false, "[1,true,\"a\"]"},
                      {{"1", "a/b", "\""}, true, R"(["1","a\/b","\""])"},
                      {{""}, false, "[]"},
                      {{"", ""}, false, "[,]"},
                      {{""}, true, "[\"\"]"}};
  for (const Row& row : rows) {
    jobject object = jobject::parse("{\"a\":1,\"b\":2}");
    object["a"].set_array(row.values, row.quote);
    EXPECT_EQ(object["a"].ref(), row.text);
    EXPECT_EQ(object.list_keys(), (std::vector<std::string>{"a", "b"}));
  }
}

}  // namespace
