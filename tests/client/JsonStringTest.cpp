// The texts that strings of the client's JSON stand for.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "client/JsonText.h"
#include "support/RandomJson.h"

namespace {

using test::decoded;
using test::JsonText;

struct Row {
  std::string literal;  // without its quotes
  std::string text;
};

/// Decoded and compared: both say that the literal stands for the text, and for no other.
void expectText(const Row& row) {
  const JsonText literal("\"" + row.literal + "\"");
  ASSERT_TRUE(literal.isValue()) << row.literal;
  EXPECT_EQ(decoded(literal.value()), row.text) << row.literal;
  EXPECT_TRUE(ssoclient_json_equals(literal.value(), row.text.c_str())) << row.literal;
  EXPECT_FALSE(ssoclient_json_equals(literal.value(), (row.text + "a").c_str())) << row.literal;
  for (std::size_t length = 0; length < row.text.size(); ++length) {
    EXPECT_FALSE(ssoclient_json_equals(literal.value(), row.text.substr(0, length).c_str())) << row.literal;
    std::string other = row.text;
    other[length] = static_cast<char>(other[length] ^ 1);
    EXPECT_FALSE(ssoclient_json_equals(literal.value(), other.c_str())) << row.literal;
  }
}

TEST(ClientJsonString, PlainTextStandsForItself) {
  for (const std::string text : {"", "a", "two words", "[1,{}]:", "/", "'", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80",
                                 "\xff\xfe\x80", "\xed\xa0\x80", "\x7f", "\x01\x1f", "\t\n\r"}) {
    expectText({text, text});
  }
}

TEST(ClientJsonString, EscapesAreUndone) {
  for (const Row& row : std::vector<Row>{{R"(\")", "\""},
                                         {R"(\\)", "\\"},
                                         {R"(\/)", "/"},
                                         {R"(\b)", "\b"},
                                         {R"(\f)", "\f"},
                                         {R"(\n)", "\n"},
                                         {R"(\r)", "\r"},
                                         {R"(\t)", "\t"},
                                         {R"(https:\/\/a\/b)", "https://a/b"},
                                         {R"(\\n)", "\\n"},
                                         {R"(\\\")", "\\\""},
                                         {R"(\\u0041)", "\\u0041"},
                                         {R"(\\\/\\/)", "\\/\\/"},
                                         {R"(a\tb\tc)", "a\tb\tc"}}) {
    expectText(row);
  }
}

/// First and last code point of each length in UTF-8, and the neighbours of the surrogates.
TEST(ClientJsonString, UnicodeEscapesBecomeUtf8) {
  for (const Row& row : std::vector<Row>{{R"(\u0001)", "\x01"},
                                         {R"(\u0022)", "\""},
                                         {R"(\u0041)", "A"},
                                         {R"(\u005C)", "\\"},
                                         {R"(\u007f)", "\x7f"},
                                         {R"(\u0080)", "\xc2\x80"},
                                         {R"(\u00e9)", "\xc3\xa9"},
                                         {R"(\u07FF)", "\xdf\xbf"},
                                         {R"(\u0800)", "\xe0\xa0\x80"},
                                         {R"(\u20aC)", "\xe2\x82\xac"},
                                         {R"(\uD7ff)", "\xed\x9f\xbf"},
                                         {R"(\uE000)", "\xee\x80\x80"},
                                         {R"(\uFFFF)", "\xef\xbf\xbf"},
                                         {R"(\uD800\uDC00)", "\xf0\x90\x80\x80"},
                                         {R"(\ud83D\uDe00)", "\xf0\x9f\x98\x80"},
                                         {R"(\uDBFF\uDC00)", "\xf4\x8f\xb0\x80"},
                                         {R"(\uDBFF\uDFFF)", "\xf4\x8f\xbf\xbf"},
                                         {R"(\u00611)", "a1"},
                                         {R"(\u0061\u0062)", "ab"},
                                         {R"(\ud83d\ude00\ud83d\ude00)", "\xf0\x9f\x98\x80\xf0\x9f\x98\x80"}}) {
    expectText(row);
    expectText({"before" + row.literal + "behind", "before" + row.text + "behind"});
  }
}

TEST(ClientJsonString, EveryUnicodeEscapeOfFourDigits) {
  for (unsigned unit = 1; unit <= 0xffff; ++unit) {
    char literal[16];
    std::snprintf(literal, sizeof literal, "\"\\u%04x\"", unit);
    const bool isSurrogate = unit >= 0xd800 && unit <= 0xdfff;
    const std::optional<std::string> text = decoded(JsonText(literal).value());
    ASSERT_EQ(text.has_value(), !isSurrogate) << literal;
    ASSERT_TRUE(isSurrogate || text->size() == (unit < 0x80 ? 1U : unit < 0x800 ? 2U : 3U)) << literal;
  }
}

TEST(ClientJsonString, NulAndHalvesOfSurrogatePairsHaveNoText) {
  for (const std::string literal :
       {R"(\u0000)", R"(\ud800)", R"(\uDBFF)", R"(\uDC00)", R"(\udfff)", R"(\ud800\ud800)", R"(\udc00\ud800)",
        R"(\udc00\udc00)", R"(\ud800a)", R"(\ud800\n)", R"(\ud800\\)", R"(\ud800\u0041)", R"(\ud800\ue000)",
        R"(\ud800\udbff)", R"(\ud800 \udc00)", R"(\ud800\\udc00)", R"(\ud800udc00)", R"(\ud83d\ude00\ude00)"}) {
    for (const std::string& text : {literal, "a" + literal, literal + "a", "a" + literal + "a"}) {
      const JsonText string("\"" + text + "\"");
      ASSERT_TRUE(string.isValue()) << text;
      EXPECT_EQ(decoded(string.value()), std::nullopt) << text;
      for (const char* other : {"", "a", "aa", "a\xed\xa0\x80", "\xed\xa0\x80"}) {
        EXPECT_FALSE(ssoclient_json_equals(string.value(), other)) << text << " and " << other;
      }
    }
  }
}

TEST(ClientJsonString, RawNulHasNoText) {
  for (const std::string& text : {std::string("\"\0\"", 3), std::string("\"a\0b\"", 5), std::string("\"a\0\"", 4)}) {
    const JsonText string(text);
    ASSERT_TRUE(string.isValue());
    EXPECT_EQ(decoded(string.value()), std::nullopt);
    EXPECT_FALSE(ssoclient_json_equals(string.value(), ""));
    EXPECT_FALSE(ssoclient_json_equals(string.value(), "a"));
  }
}

TEST(ClientJsonString, DecodingAndComparingAgreeOnRandomStrings) {
  static const std::vector<std::string> pieces = {"a",         "/",         R"(\/)", R"(\n)",     R"(\")",
                                                  R"(\\)",     "u",         "\xc3",  R"(\u00e9)", R"(\u0000)",
                                                  R"(\ud83d)", R"(\ude00)", "\x01",  R"(\uffff)"};
  test::RandomJson random;
  for (std::size_t round = test::RandomJson::rounds(20000); round > 0 && !HasFailure(); --round) {
    SCOPED_TRACE("SSO_TEST_SEED=" + std::to_string(random.seed()));
    std::string literal;
    for (std::size_t count = random.below(6); count > 0; --count) {
      literal += pieces[random.below(pieces.size())];
    }
    const JsonText string("\"" + literal + "\"");
    const std::optional<std::string> text = decoded(string.value());
    if (text) {
      expectText({literal, *text});
    } else {
      EXPECT_FALSE(ssoclient_json_equals(string.value(), literal.c_str())) << literal;
      EXPECT_FALSE(ssoclient_json_equals(string.value(), "")) << literal;
    }
  }
}

}  // namespace
