// Members, elements and kinds of the client's JSON values.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "client/JsonText.h"

namespace {

using test::JsonText;
using test::textOf;

struct Found {
  std::size_t count;
  std::string last;  // "" when there is none
};

Found find(const std::string& object, const char* name) {
  const JsonText text(object);
  EXPECT_TRUE(text.isValue()) << object;
  ssoclient_json value{};
  const std::size_t count = ssoclient_json_member(text.value(), name, &value);
  return {count, value.begin ? textOf(value) : ""};
}

struct Row {
  std::string object;
  Found found;
};

void expectFound(const std::vector<Row>& rows, const char* name = "a") {
  for (const Row& row : rows) {
    const Found found = find(row.object, name);
    EXPECT_EQ(found.count, row.found.count) << row.object;
    EXPECT_EQ(found.last, row.found.last) << row.object;
  }
}

TEST(ClientJsonMember, IsFoundWhereverItStands) {
  expectFound({{R"({"a":1})", {1, "1"}},
               {R"({"a":1,"b":2})", {1, "1"}},
               {R"({"b":2,"a":1})", {1, "1"}},
               {R"({"b":2,"a":1,"c":3})", {1, "1"}},
               {" {\n\t\"b\" : 2 ,\r\n\"a\"\t:\n1 } ", {1, "1"}},
               {R"({"b":{"x":[1,{}]},"a":1})", {1, "1"}},
               {R"({"b":"}\",\"a\":2,","a":1})", {1, "1"}}});
}

TEST(ClientJsonMember, IsTheTextOfItsValueWhateverThatIs) {
  for (const std::string value :
       {"true", "false", "null", "0", "-1.5e+3", R"("")", R"("\"a\":2}\\")", "[]", "[ 1 , {} ]", "{}",
        R"({ "a" : { "a" : 2 } })", R"(["]","}","\"",[[]]])", "\"\x01\xff\""}) {
    expectFound({{"{\"a\":" + value + "}", {1, value}},
                 {"{\"a\": " + value + " ,\"b\":1}", {1, value}},
                 {"{\"b\":" + value + " , \"a\":\t" + value + "\n}", {1, value}}});
  }
}

TEST(ClientJsonMember, IsNotFoundDeeperDown) {
  expectFound({{"{}", {0, ""}},
               {"{ }", {0, ""}},
               {R"({"b":{"a":1}})", {0, ""}},
               {R"({"b":[{"a":1}]})", {0, ""}},
               {R"({"b":{"c":{"a":1}},"d":"a"})", {0, ""}},
               {R"({"b":"a"})", {0, ""}},
               {R"({"b":"\"a\":1"})", {0, ""}},
               {R"({"b":{"a":2},"a":1})", {1, "1"}},
               {R"({"a":{"a":2}})", {1, R"({"a":2})"}}});
}

TEST(ClientJsonMember, NameIsComparedWhole) {
  expectFound({{R"({"":1,"aa":2,"A":3,"a ":4," a":5,"\u0000":6,"a\u0000":7,"\ud800":8})", {0, ""}}});
  expectFound({{R"({"ab":1,"abc":2,"abcd":3})", {1, "2"}}}, "abc");
  expectFound({{R"({"":1})", {1, "1"}}, {R"({"a":1})", {0, ""}}, {R"({"\u0000":1})", {0, ""}}}, "");
}

TEST(ClientJsonMember, NameMayBeWrittenWithEscapes) {
  expectFound({{R"({"\u0061":1})", {1, "1"}}, {R"({"\u0061":1,"a":2})", {2, "2"}}, {R"({"\\u0061":1})", {0, ""}}});
  expectFound({{R"({"\/\n\"\\":1})", {1, "1"}}, {R"({"/\u000a\u0022\u005c":1})", {1, "1"}}}, "/\n\"\\");
  expectFound({{R"({"\uD83D\uDE00":1})", {1, "1"}}, {"{\"\xf0\x9f\x98\x80\":1}", {1, "1"}}}, "\xf0\x9f\x98\x80");
}

TEST(ClientJsonMember, RepeatedOnesAreCountedAndTheLastIsGiven) {
  expectFound({{R"({"a":1,"a":2})", {2, "2"}},
               {R"({"a":1,"b":0,"a":2,"\u0061":3})", {3, "3"}},
               {R"({"a":1,"a":{"a":2}})", {2, R"({"a":2})"}}});
}

TEST(ClientJsonMember, IsInNothingButObjects) {
  for (const char* value :
       {"[]", R"([{"a":1}])", R"(["a",1])", R"("a")", R"("{\"a\":1}")", "1", "-1", "null", "true"}) {
    EXPECT_EQ(find(value, "a").count, 0U) << value;
  }
}

TEST(ClientJsonMember, OfAMemberOfAMember) {
  const JsonText text(R"({"a":{"b":{"c":[7]}},"b":1,"c":2})");
  ssoclient_json value = text.value();
  for (const char* name : {"a", "b", "c"}) {
    ASSERT_EQ(ssoclient_json_member(value, name, &value), 1U) << name;
  }
  EXPECT_EQ(textOf(value), "[7]");
}

TEST(ClientJsonFirstElement, IsTheFirstOfAnArray) {
  struct Pair {
    const char* array;
    const char* first;
  };
  for (const Pair& row : {Pair{"[1]", "1"}, Pair{"[1,2]", "1"}, Pair{" [ 1 , 2 ] ", "1"}, Pair{"[[],1]", "[]"},
                          Pair{"[\n{\"a\" : 1}\n,2]", "{\"a\" : 1}"}, Pair{"[\"]\",1]", "\"]\""},
                          Pair{"[null]", "null"}, Pair{"[[[1],2],3]", "[[1],2]"}}) {
    const JsonText text(row.array);
    ssoclient_json value{};
    ASSERT_TRUE(ssoclient_json_first_element(text.value(), &value)) << row.array;
    EXPECT_EQ(textOf(value), row.first);
  }
}

TEST(ClientJsonFirstElement, IsInNothingButArraysWithElements) {
  for (const char* other : {"[]", "[ ]", "[\t\r\n]", "{}", R"({"a":[1]})", "\"[1]\"", "1", "true", "null"}) {
    ssoclient_json value{};
    EXPECT_FALSE(ssoclient_json_first_element(JsonText(other).value(), &value)) << other;
  }
}

TEST(ClientJson, ValueIsOfOneKind) {
  struct Kind {
    const char* value;
    bool object, array, string, number;
  };
  for (const Kind& row : {Kind{"{}", true, false, false, false}, Kind{" {\"a\":[1]}", true, false, false, false},
                          Kind{"[]", false, true, false, false}, Kind{" [{}]", false, true, false, false},
                          Kind{"\"\"", false, false, true, false}, Kind{"\"1\"", false, false, true, false},
                          Kind{"0", false, false, false, true}, Kind{"9", false, false, false, true},
                          Kind{"-1", false, false, false, true}, Kind{"true", false, false, false, false},
                          Kind{"false", false, false, false, false}, Kind{"null", false, false, false, false}}) {
    const JsonText text(row.value);
    EXPECT_EQ(ssoclient_json_is_object(text.value()), row.object) << row.value;
    EXPECT_EQ(ssoclient_json_is_array(text.value()), row.array) << row.value;
    EXPECT_EQ(ssoclient_json_is_string(text.value()), row.string) << row.value;
    EXPECT_EQ(ssoclient_json_is_number(text.value()), row.number) << row.value;
  }
}

}  // namespace
