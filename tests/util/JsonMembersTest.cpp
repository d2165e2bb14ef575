#include <gtest/gtest.h>

#include <string>

#include "util/JsonMembers.h"

namespace {

using namespace velo::ssoService;

TEST(JsonMembers, AreThereWithTheirType) {
  struct Row {
    const char* value;
    bool string, number, boolean, object, array;
  };
  for (const Row row : {Row{"\"x\"", true, false, false, false, false}, Row{"\"\"", true, false, false, false, false},
                        Row{"1", false, true, false, false, false}, Row{"-0.5e1", false, true, false, false, false},
                        Row{"true", false, false, true, false, false}, Row{"false", false, false, true, false, false},
                        Row{"{}", false, false, false, true, false}, Row{"[]", false, false, false, true, true},
                        Row{"null", false, false, false, false, false}}) {
    const json::jobject document = json::jobject::parse(std::string("{\"key\":") + row.value + "}");
    EXPECT_EQ(hasString(document, "key"), row.string) << row.value;
    EXPECT_EQ(hasNumber(document, "key"), row.number) << row.value;
    EXPECT_EQ(hasBool(document, "key"), row.boolean) << row.value;
    EXPECT_EQ(hasObject(document, "key"), row.object) << row.value;
    EXPECT_EQ(hasArray(document, "key"), row.array) << row.value;
  }
}

TEST(JsonMembers, OfAMissingKeyAndOfAnArrayAreNone) {
  for (const char* text : {"{}", "{\"Key\":\"x\"}", "[\"key\"]", "[]"}) {
    const json::jobject document = json::jobject::parse(text);
    EXPECT_FALSE(hasString(document, "key")) << text;
    EXPECT_FALSE(hasNumber(document, "key")) << text;
    EXPECT_FALSE(hasBool(document, "key")) << text;
    EXPECT_FALSE(hasObject(document, "key")) << text;
    EXPECT_FALSE(hasArray(document, "key")) << text;
  }
}

}  // namespace
