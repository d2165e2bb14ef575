// What the client takes for JSON (RFC 8259), and where a value ends.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "client/JsonText.h"

namespace {

using test::JsonText;

/// A text with a NUL in it.
template <std::size_t SIZE>
std::string raw(const char (&text)[SIZE]) {
  return std::string(text, SIZE - 1);
}

const std::vector<std::string>& values() {
  static const std::vector<std::string> all = {
      "true", "false", "null",
      // numbers
      "0", "-0", "7", "-1", "10", "1234567890", "0.5", "-0.5", "0.0", "10.25", "1e5", "1E5", "1e+5", "1E-2", "0e1",
      "0E0", "-12.5e-3", "1e007", "0.000", "1.5E+9999", std::string(400, '9'), "0." + std::string(400, '0') + "1",
      // strings
      R"("")", R"("a")", R"("[1,{}]:")", R"("\"\\\/\b\f\n\r\t")", R"("\"")", R"("\\")", R"("\\\"")", R"("\u0000")",
      R"("\uaBcD\u0123\u4567\u89EF")", R"("\ud800")", R"("\udc00\ud800")", "\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\"",
      "\"\xff\xfe\x80\"", "\"\x7f\"", "\"/\"", "\"'\"",
      // control characters in strings: taken on purpose
      "\"\t\"", "\"line\nbreak\r\"", "\"\x01\x1f\"", raw("\"\0\""),
      // containers
      "[]", "[ ]", "[\t\r\n ]", "[[]]", "[[],[]]", "[1]", "[1,2,3]", "[ 1 , 2 ]", "[\"]\"]", "[[[[[]]]]]", "[{}]",
      "[null,true,false,-1.5e+3,\"\",[],{}]", "{}", "{ }", "{\n}", R"({"a":1})", R"({"":0})",
      R"({ "a" : 1 , "b" : [ ] })", R"({"a":{"b":{"c":{}}}})", R"({"a":1,"a":2})", R"({"}":"{"})",
      R"({"\u0061\/":"\""})", "{\"\xc3\xa9\":\"\xff\"}", R"([{"a":[{"b":[1,{"c":null}]}]},{}])"};
  return all;
}

/// What cannot be a value, nor stand in the place of one in an array or object.
const std::vector<std::string>& noValues() {
  static const std::vector<std::string> all = {
      // words
      "t", "tru", "truex", "True", "TRUE", "trUe", "fals", "falsee", "nul", "nulL", "nil", "nope", "undefined", "NaN",
      "Infinity", "-Infinity", "a", "true false", "tr ue",
      // numbers
      "-", "--1", "- 1", "+1", "01", "00", "-01", ".5", "-.5", "1.", "0.", "1..5", "1.e3", "1.-1", "1e", "1E", "1e+",
      "1e-", "0e", "1ee2", "1e+-5", "1e.5", "1e5.5", "1e5e5", "0.1.2", "0x1", "1a", "1_000", "1 2", "1+2", "1-2",
      "1e 5", "1 .5", "\xef\xbc\x91",
      // strings
      "\"", "\"a", R"("\)", R"("\")", R"("\a")", R"("\'")", R"("\0")", R"("\x00")", R"("\U0041")", R"("\ n")",
      R"("\u")", R"("\u0")", R"("\u00")", R"("\u004")", R"("\u004)", R"("\ug041")", R"("\u0g41")", R"("\u00g1")",
      R"("\u004g")", R"("\u 041")", R"("\u+041")", R"("\u-041")", R"("\u0x41")", R"("\ud800\u12")", R"("\ud800\x")",
      "\"\\\n\"", raw("\"\\\0\""), raw("\"\\u004\0\""), "\"\"\"", "\"a\"\"b\"", "\"a\" \"b\"", "'a'", "\\n",
      "\xe2\x80\x9cx\xe2\x80\x9d",
      // arrays
      "[", "]", "[1", "[1,", "[,", "[1,]", "[ 1 , ]", "[,1]", "[,]", "[1,,2]", "[1 2]", "[1}", "[:1]", "[1:2]", "[1;2]",
      "[\"a\":1]", "[\"a\" \"b\"]", "[true false]", "[[]", "[[] []]", "[]]", "[][]", "[1]x", "[1],", "[a]", "[01]",
      "[1.]", "[tru]", "[-]", "[3[4]]", "[\"a]",
      // objects
      "{", "}", R"({"a")", R"({"a":)", R"({"a":1)", R"({"a":1,)", R"({"a"})", R"({"a":})", R"({"a":1,})", R"({,})",
      R"({,"a":1})", R"({"a":1,,"b":2})", R"({"a",1})", R"({"a" 1})", R"({"a" "b"})", R"({"a"::1})", R"({"a":1:2})",
      R"({:1})", "{a:1}", "{'a':1}", "{1:1}", "{null:1}", "{[]:1}", "{{}}", "{[", R"({"a":1])", R"({"a":[1})",
      R"({"a":1}})", R"({"a":1 "b":2})", R"({"a":x})", R"({"\u00g":1})", R"({"a":1};)", R"({1})", R"({"a":"b})",
      R"({]})",
      // white space and others
      "\v1", "\f1", "1\v",
      "\xa0"
      "1",
      "\x85[]", "\xef\xbb\xbf{}",
      "\xe2\x81\xa0"
      "1",
      "/**/1", "1/**/", "// 1", "#", "*", ":", "\\", raw("\0"),
      raw("\0"
          "1"),
      raw("1\0"), raw("[]\0"), "\x01", "\xff"};
  return all;
}

TEST(ClientJson, TakesEveryKindOfValue) {
  for (const std::string& value : values()) {
    EXPECT_TRUE(JsonText(value).isValue()) << value;
    EXPECT_TRUE(JsonText("[" + value + "]").isValue()) << value;
    EXPECT_TRUE(JsonText("[" + value + "," + value + "]").isValue()) << value;
    EXPECT_TRUE(JsonText("{\"a\":" + value + ",\"b\":" + value + "}").isValue()) << value;
  }
}

TEST(ClientJson, RefusesEverythingElse) {
  for (const std::string& text : noValues()) {
    EXPECT_FALSE(JsonText(text).isValue()) << text;
    EXPECT_FALSE(JsonText("[" + text + "]").isValue()) << text;
    EXPECT_FALSE(JsonText("[1," + text + "]").isValue()) << text;
    EXPECT_FALSE(JsonText("{\"a\":" + text + "}").isValue()) << text;
  }
}

TEST(ClientJson, RefusesTextsWithoutAValue) {
  for (const char* blank : {"", " ", "\t", "\n", "\r", " \t\r\n "}) {
    EXPECT_FALSE(JsonText(blank).hasValue()) << testing::PrintToString(blank);
  }
}

TEST(ClientJson, RefusesTextsCutAtEveryLength) {
  for (const std::string& value : values()) {
    for (const std::string& whole : {"[" + value + "]", "{\"a\":" + value + "}"}) {
      for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_FALSE(JsonText(whole.substr(0, length)).hasValue()) << whole.substr(0, length);
      }
    }
  }
}

TEST(ClientJson, LeavesOutWhiteSpaceAroundAValue) {
  for (const std::string& value : values()) {
    const JsonText text(" \t\r\n" + value + "\n\r\t ");
    EXPECT_EQ(text.valueText(), value);
    EXPECT_EQ(text.rest(), "");
  }
}

TEST(ClientJson, ValueEndsWhereTheNextTokenBegins) {
  for (const std::string& value : values()) {
    for (const std::string rest : {",", "]", "}", ":", "\"", "x", "[", "{", "\\", "\v", "\xff"}) {
      const JsonText text(value + " " + rest + " 1");
      EXPECT_EQ(text.valueText(), value);
      EXPECT_EQ(text.rest(), rest + " 1");
    }
  }
}

}  // namespace
