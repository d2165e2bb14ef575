// The text that json::jobject writes, compact and indented.

#include <gtest/gtest.h>

#include <string>

#include "json/json.h"

namespace {

using json::jobject;

TEST(JsonText, CompactTextHasNoWhiteSpace) {
  jobject object;
  object["status"] = "ok";
  object["token"] = "a/b";
  EXPECT_EQ(object.as_string(), R"({"status":"ok","token":"a\/b"})");
  const std::string converted = object;
  EXPECT_EQ(converted, object.as_string());
}

TEST(JsonText, CompactTextEscapesKeysAndKeepsValuesAsStored) {
  jobject object;
  object.set("a\"/\n", " [ 1 ] ");
  EXPECT_EQ(object.as_string(), "{\"a\\\"\\/\\n\": [ 1 ] }");
}

TEST(JsonText, PrettyText) {
  struct Row {
    const char* text;
    unsigned indent;
    const char* pretty;
  };
  const Row rows[] = {
      {"{}", 0, "{}"},
      {"[]", 0, "[]"},
      {"{}", 2, "\t\t{}"},
      {"[]", 1, "\t[]"},
      {"{\"a\":1}", 0, "{\n\t\"a\": 1\n}"},
      {"{\"a\":1}", 1, "\t{\n\t\t\"a\": 1\n\t}"},
      {"[1]", 0, "[\n\t1\n]"},
      {"[1,\"x\",null]", 1, "\t[\n\t\t1,\n\t\t\"x\",\n\t\tnull\n\t]"},
      {"{\"a\":1,\"b\":{\"c\":2}}", 0, "{\n\t\"a\": 1,\n\t\"b\": {\n\t\t\"c\": 2\n\t}\n}"},
      {"{\"a\":{\"b\":1},\"c\":2}", 0, "{\n\t\"a\": {\n\t\t\"b\": 1\n\t},\n\t\"c\": 2\n}"},
      {"{\"a\":{},\"b\":[]}", 0, "{\n\t\"a\": {},\n\t\"b\": []\n}"},
      {"[{},[]]", 0, "[\n\t{},\n\t[]\n]"},
      {"[[1,[2]],{\"a\":[3]}]", 0,
       "[\n\t[\n\t\t1,\n\t\t[\n\t\t\t2\n\t\t]\n\t],\n\t{\n\t\t\"a\": [\n\t\t\t3\n\t\t]\n\t}\n]"},
      {"{\"a\":[1,2]}", 1, "\t{\n\t\t\"a\": [\n\t\t\t1,\n\t\t\t2\n\t\t]\n\t}"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(jobject::parse(row.text).pretty(row.indent), row.pretty) << row.text;
  }
}

TEST(JsonText, PrettyKeepsKeysUnescapedAndValuesAsStored) {
  jobject object;
  object.set("a\"/\n", "\"x\\/y\"");
  object.set("b", " {}");
  object.set("c", "");
  EXPECT_EQ(object.pretty(0), "{\n\t\"a\"/\n\": \"x\\/y\",\n\t\"b\":  {},\n\t\"c\": \n}");
}

TEST(JsonText, PrettyOfABadNestedTextThrows) {
  jobject object;
  object.set("a", "{\"b\":");
  EXPECT_THROW(object.pretty(0), json::parsing_error);
  object.set("a", "[1 2]");
  EXPECT_THROW(object.pretty(0), json::parsing_error);
}

TEST(JsonText, PrettyTextParsesToTheSameDocument) {
  const char* text = "{\"a\":[1,{\"b\":[]},\"x y\"],\"c\":{\"d\":{\"e\":null}},\"f\":true}";
  const jobject object = jobject::parse(text);
  EXPECT_EQ(jobject::parse(object.pretty(0)).as_string(), text);
  EXPECT_EQ(jobject::parse(object.pretty(3)).as_string(), text);
}

}  // namespace
