// Free functions of the JSON library: white space, types, values, arrays, string literals, digits.

#include <gtest/gtest.h>

#include <cstddef>
#include <exception>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "json/json.h"
#include "support/ParsingError.h"

namespace {

using json::jtype;
using test::parsingError;
using testing::PrintToString;

using Texts = std::vector<std::string>;

TEST(JsonCodec, ParsingErrorIsAnInvalidArgument) {
  try {
    json::parse_value("");
    ADD_FAILURE();
  } catch (const std::invalid_argument& thrown) {
    EXPECT_STREQ(thrown.what(), "Input was only whitespace");
  }
}

TEST(JsonCodec, InvalidKeySaysTheKeyAndIsNoOtherStandardError) {
  const json::invalid_key thrown("the key");
  EXPECT_STREQ(thrown.what(), "the key");
  EXPECT_TRUE((std::is_base_of_v<std::exception, json::invalid_key>));
  EXPECT_FALSE((std::is_base_of_v<std::logic_error, json::invalid_key>));
  EXPECT_FALSE((std::is_base_of_v<std::runtime_error, json::invalid_key>));
}

TEST(JsonCodec, TypeOfJudgesEveryByte) {
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    jtype expected = jtype::not_valid;
    if (c == '"') {
      expected = jtype::jstring;
    } else if (c == '-' || (c >= '0' && c <= '9')) {
      expected = jtype::jnumber;
    } else if (c == '{') {
      expected = jtype::jobject;
    } else if (c == '[') {
      expected = jtype::jarray;
    } else if (c == 't' || c == 'f') {
      expected = jtype::jbool;
    } else if (c == 'n') {
      expected = jtype::jnull;
    }
    EXPECT_EQ(json::type_of(c), expected) << byte;
  }
}

TEST(JsonCodec, TypeOfTextJudgesTheFirstCharacterBehindWhiteSpace) {
  struct Row {
    const char* text;
    jtype type;
  };
  for (const Row row :
       {Row{"nope", jtype::jnull}, Row{" \t\n\v\f\r\"", jtype::jstring}, Row{"-", jtype::jnumber},
        Row{" {", jtype::jobject}, Row{"\n[", jtype::jarray}, Row{"t", jtype::jbool}, Row{" f", jtype::jbool},
        Row{"", jtype::not_valid}, Row{"  ", jtype::not_valid}, Row{"}", jtype::not_valid}, Row{"+1", jtype::not_valid},
        Row{"\xa0"
            "1",
            jtype::not_valid}}) {
    EXPECT_EQ(json::type_of_text(row.text), row.type) << row.text;
  }
}

TEST(JsonCodec, SkipWhitespaceStopsAtTheFirstOtherCharacterOrTheEnd) {
  struct Row {
    const char* text;
    std::ptrdiff_t skipped;
  };
  for (const Row row :
       {Row{"", 0}, Row{"a ", 0}, Row{" a", 1}, Row{" \t\n\v\f\r", 6}, Row{"\xa0 ", 0}, Row{"  \x85", 2}}) {
    EXPECT_EQ(json::skip_whitespace(row.text) - row.text, row.skipped) << PrintToString(row.text);
  }
}

TEST(JsonParseValue, ReadsOneValueAndPointsBehindIt) {
  struct Row {
    const char* text;
    jtype type;
    const char* value;
    const char* remainder;
  };
  for (const Row row : {Row{" 42 , 1", jtype::jnumber, "42", " , 1"}, Row{"\"a\"b", jtype::jstring, "\"a\"", "b"},
                        Row{"[ 1 , 2 ] x", jtype::jarray, "[1,2]", " x"},
                        Row{"{ \"a\" : 1 }", jtype::jobject, "{\"a\":1}", ""}, Row{"truex", jtype::jbool, "true", "x"},
                        Row{"null", jtype::jnull, "null", ""}, Row{"01", jtype::jnumber, "0", "1"}}) {
    const json::parse_results results = json::parse_value(row.text);
    EXPECT_EQ(results.type, row.type) << row.text;
    EXPECT_EQ(results.value, row.value) << row.text;
    EXPECT_STREQ(results.remainder, row.remainder) << row.text;
  }
}

TEST(JsonParseValue, IncompleteValueIsNotValidAndEmpty) {
  struct Row {
    const char* text;
    const char* remainder;
  };
  for (const Row row : {Row{"[1,2", ""}, Row{"[1,]", "]"}, Row{"{\"a\":1,}", "}"}, Row{"tru", ""}, Row{"-x", "x"},
                        Row{"x", "x"}, Row{" ,", ","}, Row{"\"a\\/b\"", "/b\""}}) {
    const json::parse_results results = json::parse_value(row.text);
    EXPECT_EQ(results.type, jtype::not_valid) << row.text;
    EXPECT_EQ(results.value, "") << row.text;
    EXPECT_STREQ(results.remainder, row.remainder) << row.text;
  }
}

TEST(JsonParseValue, UnterminatedStringEndsAtTheEndOfTheText) {
  for (const char* text : {"\"", "\"abc", "[\"abc", "{\"abc", "{\"a\":\"b", "\"\\", "\"\\u00"}) {
    const json::parse_results results = json::parse_value(text);
    EXPECT_EQ(results.type, jtype::not_valid) << text;
    EXPECT_STREQ(results.remainder, "") << text;
  }
}

TEST(JsonParseValue, WhiteSpaceAloneThrows) {
  for (const char* text : {"", " ", " \t\r\n\v\f"}) {
    EXPECT_EQ(parsingError([&] { json::parse_value(text); }), "Input was only whitespace") << PrintToString(text);
  }
}

TEST(JsonParseArray, SplitsIntoElementTexts) {
  struct Row {
    const char* text;
    Texts elements;
  };
  const Row rows[] = {{"[]", {}},
                      {" [ ] ", {}},
                      {"[1]", {"1"}},
                      {" [ 1 , -2.5 , true , null ] x", {"1", "-2.5", "true", "null"}},
                      {"[\"a\", \"b\\n\", \"c\\u0041d\"]", {"a", "b\n", "cd"}},
                      {"[[ 1 , \"a\" ],{ \"b\" : 2 }]", {"[1,\"a\"]", "{\"b\":2}"}},
                      {"[\"\"]", {""}}};
  for (const Row& row : rows) {
    EXPECT_EQ(json::parse_array(row.text), row.elements) << row.text;
  }
}

TEST(JsonParseArray, ElementsPartedByWhiteSpaceAloneAreAccepted) {
  EXPECT_EQ(json::parse_array("[1 2]"), (Texts{"1", "2"}));
  EXPECT_EQ(json::parse_array("[\"a\"\"b\" true[1]]"), (Texts{"a", "b", "true", "[1]"}));
  EXPECT_EQ(json::parse_array("[01]"), (Texts{"0", "1"}));
}

TEST(JsonParseArray, RefusesWhatIsNoArray) {
  for (const char* text : {"", " ", "1", "{}", "\"[]\"", "]", "null"}) {
    EXPECT_EQ(parsingError([&] { json::parse_array(text); }), "Input was not an array") << PrintToString(text);
  }
}

TEST(JsonParseArray, RefusesBadAndUnfinishedArrays) {
  struct Row {
    const char* text;
    const char* error;
  };
  for (const Row row :
       {Row{"[", "Input was not properly formated"}, Row{"[ ", "Input was not properly formated"},
        Row{"[1", "Input was not properly formated"}, Row{"[1 ", "Input was not properly formated"},
        Row{"[1,", "Input was not properly formated"}, Row{"[1, ", "Input was only whitespace"},
        Row{"[1,\n\t", "Input was only whitespace"}, Row{"[1,]", "Input was not properly formated"},
        Row{"[,1]", "Input was not properly formated"}, Row{"[1,,2]", "Input was not properly formated"},
        Row{"[1}", "Input was not properly formated"}, Row{"[tru]", "Input was not properly formated"},
        Row{"[[1]", "Input was not properly formated"}, Row{"[\"a]", "Input was not properly formated"}}) {
    EXPECT_EQ(parsingError([&] { json::parse_array(row.text); }), row.error) << row.text;
  }
}

TEST(JsonDecodeString, TurnsLiteralsIntoPlainText) {
  struct Row {
    const char* literal;
    const char* plain;
  };
  for (const Row row : {Row{R"("")", ""}, Row{R"("abc")", "abc"}, Row{R"("abc"def)", "abc"}, Row{R"("\"")", "\""},
                        Row{R"("a\/b")", "a/b"}, Row{R"("a/b")", "a/b"}, Row{R"("\\")", "\\"}, Row{R"("\\n")", "\\n"},
                        Row{R"("\b\f\n\r\t")", "\b\f\n\r\t"}, Row{"\"\t\xc3\xa9\xff\"", "\t\xc3\xa9\xff"},
                        Row{"\"abc", "abc"}, Row{"\"", ""}}) {
    EXPECT_EQ(json::decode_string(row.literal), row.plain) << row.literal;
  }
}

TEST(JsonDecodeString, DropsUnicodeEscapes) {
  struct Row {
    const char* literal;
    const char* plain;
  };
  for (const Row row : {Row{R"("x\u0041y")", "xy"}, Row{R"("\u0041\u0042")", ""}, Row{R"("\u00e91")", "1"},
                        Row{R"("\uD834\uDD1E!")", "!"}, Row{R"("\uzzzzb")", "b"}, Row{R"("\u"""x"y)", ""},
                        Row{R"("\u12)", ""}, Row{R"("\u)", ""}}) {
    EXPECT_EQ(json::decode_string(row.literal), row.plain) << row.literal;
  }
}

TEST(JsonDecodeString, RefusesTextWithoutOpeningQuote) {
  for (const char* text : {"", "abc", "'a'", " \"a\"", "1"}) {
    EXPECT_EQ(parsingError([&] { json::decode_string(text); }), "Expecting opening quote") << PrintToString(text);
  }
}

TEST(JsonDecodeString, RefusesOtherEscapes) {
  for (const char* text : {R"("\a")", R"("\x41")", R"("\U0041")", R"("\ ")", R"("ab\')", R"("\0")"}) {
    EXPECT_EQ(parsingError([&] { json::decode_string(text); }), "Expected control character") << text;
  }
}

TEST(JsonEscapeString, MapsEveryByte) {
  for (int byte = 1; byte < 256; ++byte) {
    const std::string plain(1, static_cast<char>(byte));
    std::string expected = plain;
    switch (byte) {
      case '"':
        expected = "\\\"";
        break;
      case '/':
        expected = "\\/";
        break;
      case '\\':
        expected = "\\\\";
        break;
      case 0x08:
        expected = "\\b";
        break;
      case 0x0C:
        expected = "\\f";
        break;
      case 0x0A:
        expected = "\\n";
        break;
      case 0x0D:
        expected = "\\r";
        break;
      case 0x09:
        expected = "\\t";
        break;
      default:
        break;
    }
    EXPECT_EQ(json::escape_string(plain.c_str()), "\"" + expected + "\"") << byte;
    EXPECT_EQ(json::decode_string(json::escape_string(plain.c_str()).c_str()), plain) << byte;
  }
}

TEST(JsonEscapeString, EscapesWholeTexts) {
  EXPECT_EQ(json::escape_string(""), "\"\"");
  EXPECT_EQ(json::escape_string("https://a/b"), R"("https:\/\/a\/b")");
  EXPECT_EQ(json::escape_string("say \"x\\y\"\n"), R"("say \"x\\y\"\n")");
  EXPECT_EQ(json::escape_string("\x01\x1f\x7f\xc3\xa9"), "\"\x01\x1f\x7f\xc3\xa9\"");
}

TEST(JsonReadDigits, ReturnsTheDigitsBehindWhiteSpace) {
  struct Row {
    const char* text;
    const char* digits;
  };
  for (const Row row : {Row{"", ""}, Row{"  ", ""}, Row{"12", "12"}, Row{" \t\n12ab3", "12"}, Row{"a12", ""},
                        Row{"-1", ""}, Row{"+1", ""}, Row{"1.5", "1"}, Row{"00120 7", "00120"}, Row{"1\xb2", "1"},
                        Row{"99999999999999999999999999", "99999999999999999999999999"}}) {
    EXPECT_EQ(json::read_digits(row.text), row.digits) << PrintToString(row.text);
  }
}

}  // namespace
