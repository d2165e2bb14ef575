// What the reader answers to single characters.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>

#include "json/json.h"
#include "support/VisibleReader.h"

namespace {

using json::jtype;
using json::kvp_reader;
using json::reader;

/// The answers to a text's characters: A accepted, R rejected, W white space. Stops behind the first rejection.
std::string answers(reader& pushed, const std::string& text) {
  std::string letters;
  for (const char c : text) {
    letters += "ARW"[pushed.push(c)];
    if (letters.back() == 'R') {
      break;
    }
  }
  return letters;
}

struct Pushed {
  const char* text;
  const char* answers;
  bool valid;
  const char* readout;
};

void expectAnswers(std::initializer_list<Pushed> rows) {
  for (const Pushed& row : rows) {
    reader pushed;
    EXPECT_EQ(answers(pushed, row.text), row.answers) << row.text;
    EXPECT_EQ(pushed.is_valid(), row.valid) << row.text;
    EXPECT_EQ(pushed.readout(), row.readout) << row.text;
  }
}

TEST(JsonReader, ResultsAndTypesHaveTheirNumbers) {
  EXPECT_EQ(reader::ACCEPTED, 0);
  EXPECT_EQ(reader::REJECTED, 1);
  EXPECT_EQ(reader::WHITESPACE, 2);
  EXPECT_EQ(static_cast<int>(jtype::jstring), 0);
  EXPECT_EQ(static_cast<int>(jtype::jnumber), 1);
  EXPECT_EQ(static_cast<int>(jtype::jobject), 2);
  EXPECT_EQ(static_cast<int>(jtype::jarray), 3);
  EXPECT_EQ(static_cast<int>(jtype::jbool), 4);
  EXPECT_EQ(static_cast<int>(jtype::jnull), 5);
  EXPECT_EQ(static_cast<int>(jtype::not_valid), 6);
}

TEST(JsonReader, IsNotAStringForItsUsers) {
  EXPECT_TRUE((std::is_base_of_v<std::string, reader>));
  EXPECT_FALSE((std::is_convertible_v<reader*, std::string*>));
}

TEST(JsonReader, NewReaderIsEmpty) {
  const test::VisibleReader fresh;
  EXPECT_EQ(fresh.type(), jtype::not_valid);
  EXPECT_FALSE(fresh.is_valid());
  EXPECT_EQ(fresh.readout(), "");
  EXPECT_EQ(fresh.currentState(), 0);
}

TEST(JsonReader, NumberEndsAtComma) {
  reader pushed;
  EXPECT_EQ(answers(pushed, "  42,"), "AAAAR");
  EXPECT_TRUE(pushed.is_valid());
  EXPECT_EQ(pushed.type(), jtype::jnumber);
  EXPECT_EQ(pushed.readout(), "42");
}

TEST(JsonReader, WhiteSpaceBeforeAValueIsAcceptedAndNotStored) {
  expectAnswers({{" \t\n\r\v\f", "AAAAAA", false, ""}, {" \n{}", "AAAA", true, "{}"}, {"1 ", "AR", true, "1"}});
}

TEST(JsonReader, CompleteNumbers) {
  expectAnswers({{"0", "A", true, "0"},
                 {"-0", "AA", true, "-0"},
                 {"0.5", "AAA", true, "0.5"},
                 {"1e5", "AAA", true, "1e5"},
                 {"1E+5", "AAAA", true, "1E+5"},
                 {"-12.5e-3", "AAAAAAAA", true, "-12.5e-3"}});
}

TEST(JsonReader, LeadingZeroTakesNoFurtherDigit) {
  expectAnswers({{"01", "AR", true, "0"}, {"-01", "AAR", true, "-0"}, {"00", "AR", true, "0"}});
}

TEST(JsonReader, IncompleteNumbersAreReadButNotValid) {
  expectAnswers(
      {{"-", "A", false, "-"}, {"1.", "AA", false, "1."}, {"1e", "AA", false, "1e"}, {"1e+", "AAA", false, "1e+"}});
}

TEST(JsonReader, RejectsPlusSignAtOnce) {
  expectAnswers({{"+1", "R", false, ""}});
}

TEST(JsonReader, RejectsEscapedSlash) {
  expectAnswers({{R"("a\/b")", "AAAR", false, R"("a\)"}});
}

TEST(JsonReader, UnicodeEscapeTakesFourHexadecimalDigits) {
  expectAnswers({{R"("a\u00e9")", "AAAAAAAAA", true, R"("a\u00e9")"},
                 {R"("a\u00g")", "AAAAAAR", false, R"("a\u00)"},
                 {R"("\uFfAa")", "AAAAAAAA", true, R"("\uFfAa")"}});
}

TEST(JsonReader, WordsAreValidOnlyWhole) {
  expectAnswers({{"tru", "AAA", false, "tru"},
                 {"true", "AAAA", true, "true"},
                 {"truex", "AAAAR", true, "true"},
                 {"fals", "AAAA", false, "fals"},
                 {"false", "AAAAA", true, "false"},
                 {"nul", "AAA", false, "nul"},
                 {"null", "AAAA", true, "null"},
                 {"nulll", "AAAAR", true, "null"}});
}

TEST(JsonReader, CompleteArrays) {
  expectAnswers({{"[]", "AA", true, "[]"},
                 {"[ ]", "AWA", true, "[]"},
                 {"[1,[2,3],{\"a\":null}]", "AAAAAAAAAAAAAAAAAAAA", true, "[1,[2,3],{\"a\":null}]"}});
}

TEST(JsonReader, RejectsBracketBehindComma) {
  expectAnswers({{"[1,]", "AAAR", false, "[1,"}, {"[1, ]", "AAAWR", false, "[1,"}});
}

TEST(JsonReader, RejectsCommaBeforeFirstElement) {
  expectAnswers({{"[,1]", "AR", false, "["}});
}

TEST(JsonReader, WhiteSpaceBetweenTwoDigitsVanishes) {
  expectAnswers({{"[1 2]", "AAWAA", true, "[12]"}, {"{\"a\":1 2}", "AAAAAAWAA", true, "{\"a\":12}"}});
}

TEST(JsonReader, CompleteObjects) {
  expectAnswers({{"{}", "AA", true, "{}"}, {"{ \"a\" : 1 }", "AWAAAWAWAWA", true, "{\"a\":1}"}});
}

TEST(JsonReader, RejectsBraceBehindComma) {
  expectAnswers({{"{\"a\":1,}", "AAAAAAAR", false, "{\"a\":1,"}});
}

TEST(JsonReader, RejectsCommaBeforeBrace) {
  expectAnswers({{"{,}", "AR", false, "{"}});
}

TEST(JsonReader, RejectsBraceBehindKey) {
  expectAnswers({{"{\"a\"}", "AAAAR", false, "{"}, {"{\"a\" }", "AAAAWR", false, "{"}});
}

TEST(JsonReader, RejectsKeyWithoutQuotes) {
  expectAnswers({{"{a:1}", "AR", false, "{"}});
}

TEST(JsonReader, WhiteSpaceInsideStringsIsKept) {
  expectAnswers({{"{ \" a \" : [ \" b \" ] }", "AWAAAAAWAWAWAAAAAWAWA", true, "{\" a \":[\" b \"]}"}});
}

TEST(JsonReader, ReadoutOfAnOpenContainerHoldsCompletedElementsOnly) {
  expectAnswers({{"[1,23", "AAAAA", false, "[1,"},
                 {"[[1,2],[3", "AAAAAAAAA", false, "[[1,2],"},
                 {"{\"a\":1,\"b\":2", "AAAAAAAAAAAA", false, "{\"a\":1,"},
                 {"{\"a\":[1,2]", "AAAAAAAAAA", false, "{"}});
}

TEST(JsonReader, NulBelongsToAStringAndToNothingElse) {
  const std::string nul(1, '\0');
  for (const std::string begun :
       {"", "[", "[1", "[1,", "{", "{\"a\"", "{\"a\":", "1", "1.", "t", "null", "\"\\", "\"\\u00"}) {
    reader pushed;
    answers(pushed, begun);
    EXPECT_EQ(pushed.push('\0'), reader::REJECTED) << begun;
  }
  reader text;
  EXPECT_EQ(answers(text, "\"a" + nul + "b\""), "AAAAA");
  EXPECT_EQ(text.readout(), "\"a" + nul + "b\"");
  reader key;
  EXPECT_EQ(answers(key, "{\"" + nul + "\":[\"" + nul + "\"]}"), "AAAAAAAAAAA");
  EXPECT_EQ(key.readout(), "{\"" + nul + "\":[\"" + nul + "\"]}");
}

TEST(JsonReader, BytesFrom128UpBelongToStringsAndAreNoWhiteSpace) {
  for (int byte = 128; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    reader outside;
    EXPECT_EQ(outside.push(c), reader::REJECTED) << byte;
    reader inside;
    EXPECT_EQ(answers(inside, std::string("\"") + c + "\""), "AAA") << byte;
    EXPECT_EQ(inside.readout(), std::string("\"") + c + "\"") << byte;
    reader element;
    EXPECT_EQ(answers(element, std::string("[1") + c), "AAR") << byte;
  }
}

TEST(JsonReader, TypeIsThatOfTheFirstCharacter) {
  struct Row {
    char first;
    jtype type;
  };
  for (const Row row :
       {Row{'"', jtype::jstring}, Row{'-', jtype::jnumber}, Row{'7', jtype::jnumber}, Row{'{', jtype::jobject},
        Row{'[', jtype::jarray}, Row{'t', jtype::jbool}, Row{'f', jtype::jbool}, Row{'n', jtype::jnull}}) {
    reader pushed;
    EXPECT_EQ(pushed.push(' '), reader::ACCEPTED);
    EXPECT_EQ(pushed.type(), jtype::not_valid);
    EXPECT_EQ(pushed.push(row.first), reader::ACCEPTED) << row.first;
    EXPECT_EQ(pushed.type(), row.type) << row.first;
  }
}

TEST(JsonReader, AfterACompleteValueOnlyClearMakesItAcceptAgain) {
  for (const char* value : {"1", "\"a\"", "true", "null", "[1]", "{\"a\":1}"}) {
    reader pushed;
    answers(pushed, value);
    for (const char c : std::string("\"[{}],:tn-a")) {
      EXPECT_EQ(pushed.push(c), reader::REJECTED) << value << c;
    }
    EXPECT_TRUE(pushed.is_valid()) << value;
    EXPECT_EQ(pushed.readout(), value);
    pushed.clear();
    EXPECT_EQ(pushed.readout(), "");
    EXPECT_EQ(pushed.type(), jtype::not_valid);
    EXPECT_EQ(answers(pushed, "[2]"), "AAA") << value;
    EXPECT_EQ(pushed.readout(), "[2]");
  }
}

TEST(JsonReader, ClearForgetsAnOpenValueAtAnyDepth) {
  reader pushed;
  answers(pushed, "[{\"a\":[{\"b\":\"c");
  pushed.clear();
  EXPECT_FALSE(pushed.is_valid());
  EXPECT_EQ(answers(pushed, "7"), "A");
  EXPECT_EQ(pushed.readout(), "7");
}

TEST(JsonReader, StatesAreThoseOfTheTables) {
  struct Row {
    const char* text;
    int state;
  };
  for (const Row row :
       {Row{"\"", 1},      Row{"\"a", 2},      Row{"\"\\", 3},      Row{"\"\\u", 4},    Row{"\"\\u0", 5},
        Row{"\"\\u00", 6}, Row{"\"\\u000", 7}, Row{"\"\\u0000", 2}, Row{"\"\"", 8},     Row{"-", 1},
        Row{"0", 2},       Row{"-0", 2},       Row{"12", 3},        Row{"1.", 4},       Row{"1.5", 5},
        Row{"1e", 6},      Row{"0E", 6},       Row{"1e-", 7},       Row{"1e5", 8},      Row{"[", 1},
        Row{"[1", 2},      Row{"[1 ", 2},      Row{"[1,", 3},       Row{"[1]", 4},      Row{"[]", 4},
        Row{"{", 1},       Row{"{\"", 2},      Row{"{\"a\"", 2},    Row{"{\"a\":1", 2}, Row{"{\"a\":1,", 3},
        Row{"{}", 4},      Row{"true", 0},     Row{"null", 0},      Row{"[[", 2},       Row{"[[]", 2}}) {
    test::VisibleReader pushed;
    answers(pushed, row.text);
    EXPECT_EQ(pushed.currentState(), row.state) << row.text;
  }
}

TEST(JsonReader, CopyGoesOnByItself) {
  reader original;
  answers(original, "[1,{\"a\":");
  reader copy = original;
  EXPECT_EQ(answers(copy, "2}]"), "AAA");
  EXPECT_EQ(copy.readout(), "[1,{\"a\":2}]");
  EXPECT_EQ(original.readout(), "[1,");
  EXPECT_EQ(answers(original, "true}]"), "AAAAAA");
  EXPECT_EQ(original.readout(), "[1,{\"a\":true}]");
}

TEST(JsonKvpReader, ReadsOnePair) {
  kvp_reader pair;
  EXPECT_EQ(answers(pair, " \"a\" : [ 1 , 2 ]"), "WAAAWAWAWAWAWAWA");
  EXPECT_TRUE(pair.is_valid());
  EXPECT_EQ(pair.type(), jtype::jarray);
  EXPECT_EQ(pair.readout(), "\"a\":[1,2]");
}

TEST(JsonKvpReader, ReadoutHoldsKeyAndValueSoFar) {
  struct Row {
    const char* text;
    const char* readout;
    bool valid;
  };
  for (const Row row : {Row{"", ":", false}, Row{"\"a", "\"a:", false}, Row{"\"a\"", "\"a\":", false},
                        Row{"\"a\":", "\"a\":", false}, Row{"\"a\":tr", "\"a\":tr", false},
                        Row{"\"a\":true", "\"a\":true", true}, Row{"\"a\":[1,2", "\"a\":[1,", false}}) {
    kvp_reader pair;
    answers(pair, row.text);
    EXPECT_EQ(pair.readout(), row.readout);
    EXPECT_EQ(pair.is_valid(), row.valid) << row.text;
  }
}

TEST(JsonKvpReader, TypeIsTheValues) {
  kvp_reader pair;
  EXPECT_EQ(answers(pair, "\"a\" :"), "AAAWA");
  EXPECT_EQ(pair.type(), jtype::not_valid);
  EXPECT_EQ(pair.push('{'), reader::ACCEPTED);
  EXPECT_EQ(pair.type(), jtype::jobject);
}

TEST(JsonKvpReader, RejectsWhatIsNoPair) {
  struct Row {
    const char* text;
    const char* answers;
  };
  for (const Row row :
       {Row{"a", "R"}, Row{"1", "R"}, Row{":", "R"}, Row{"}", "R"}, Row{"\"a\"}", "AAAR"}, Row{"\"a\"1", "AAAR"},
        Row{"\"a\"\"", "AAAR"}, Row{"\"a\\/", "AAAR"}, Row{"\"a\":}", "AAAAR"}, Row{"\"a\":,", "AAAAR"},
        Row{"\"a\"::", "AAAAR"}, Row{"\"a\":1,", "AAAAAR"}, Row{"\"a\":1 ", "AAAAAR"}}) {
    kvp_reader pair;
    EXPECT_EQ(answers(pair, row.text), row.answers) << row.text;
  }
}

TEST(JsonKvpReader, ClearForgetsKeyColonAndValue) {
  for (const char* begun : {"\"a", "\"a\"", "\"a\":", "\"a\":[1", "\"a\":1"}) {
    kvp_reader pair;
    answers(pair, begun);
    pair.clear();
    EXPECT_EQ(pair.readout(), ":") << begun;
    EXPECT_EQ(answers(pair, "\"b\":2"), "AAAAA") << begun;
    EXPECT_EQ(pair.readout(), "\"b\":2") << begun;
  }
}

TEST(JsonKvpReader, IsAReader) {
  const std::unique_ptr<reader> pair = std::make_unique<kvp_reader>();
  EXPECT_EQ(answers(*pair, "\"a\":1"), "AAAAA");
  EXPECT_EQ(pair->readout(), "\"a\":1");
  EXPECT_TRUE(pair->is_valid());
  pair->clear();
  EXPECT_EQ(pair->readout(), ":");
}

}  // namespace
