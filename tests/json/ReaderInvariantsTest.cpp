// What a reader does when its state has been broken on purpose.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "support/VisibleReader.h"

namespace {

using test::VisibleKvpReader;
using test::VisibleReader;

template <typename Reader>
void pushAll(Reader& pushed, const std::string& text) {
  for (const char c : text) {
    pushed.push(c);
  }
}

struct Broken {
  const char* begun;  ///< what is pushed before the state is broken
  int state;
  char next;
  const char* assertion;
};

template <typename Reader>
void expectAssertions(std::initializer_list<Broken> rows) {
#ifdef NDEBUG
  static_cast<void>(rows);
  GTEST_SKIP() << "assertions are compiled out of this build";
#else
  for (const Broken& row : rows) {
    Reader broken;
    pushAll(broken, row.begun);
    broken.breakState(static_cast<char>(row.state));
    const std::string message = std::string("Assertion `") + row.assertion + "' failed";
    EXPECT_DEATH(broken.push(row.next),
                 testing::AllOf(testing::ContainsRegex("json(\\.cpp)?:[0-9]+: .*push"), testing::HasSubstr(message)))
        << row.begun << " in state " << row.state;
  }
#endif
}

TEST(JsonReaderDeathTest, StringInvariants) {
  expectAssertions<VisibleReader>({{"\"", 0, '"', "this->length() == 0"},
                                   {"\"ab", 1, 'c', "this->length() == 1"},
                                   {"", 1, '"', "this->length() == 1"},
                                   {"", 2, '"', "this->length() > 0"},
                                   {"\"a", 4, '0', "this->back() == 'u'"},
                                   {"\"x", 5, '0', "is_hex_digit(this->back())"},
                                   {"\"x", 6, '0', "is_hex_digit(this->back())"},
                                   {"\"x", 7, '0', "is_hex_digit(this->back())"}});
}

TEST(JsonReaderDeathTest, NumberInvariants) {
  expectAssertions<VisibleReader>({{"1", 0, '1', "this->length() == 0"},
                                   {"-", 3, '1', "IS_DIGIT(this->back())"},
                                   {"-", 5, '1', "IS_DIGIT(this->back())"},
                                   {"1", 4, '1', "this->back() == '.'"},
                                   {"1", 6, '1', "this->back() == 'e' || this->back() == 'E'"}});
}

TEST(JsonReaderDeathTest, PairInvariants) {
  expectAssertions<VisibleKvpReader>({{"\"a\":", 3, ' ', "reader::get_state<char>() == 0"}});
}

TEST(JsonReader, UnknownStateThrowsUnexpectedReturn) {
  for (const char* begun : {"\"", "1", "[", "{"}) {
    for (const int state : {9, 100, -1}) {
      VisibleReader broken;
      pushAll(broken, begun);
      broken.breakState(static_cast<char>(state));
      try {
        broken.push('1');
        ADD_FAILURE() << begun << " in state " << state;
      } catch (const std::logic_error& thrown) {
        EXPECT_STREQ(thrown.what(), "Unexpected return") << begun << " in state " << state;
      }
    }
  }
}

TEST(JsonReader, UnknownContainerStateFiveThrowsUnexpectedReturn) {
  for (const char* begun : {"[", "{"}) {
    VisibleReader broken;
    pushAll(broken, begun);
    broken.breakState(5);
    EXPECT_THROW(broken.push('1'), std::logic_error) << begun;
  }
}

void expectStateToBeRead(const std::string& begun) {
  VisibleReader broken;
  pushAll(broken, begun);
  for (int state = 0; state < 9; ++state) {
    broken.breakState(static_cast<char>(state));
    EXPECT_EQ(broken.currentState(), state) << begun;
  }
}

TEST(JsonReader, StateThatWasSetIsRead) {
  for (const char* begun : {"", "1", "\"", "[", "{", "true"}) {
    expectStateToBeRead(begun);
  }
}

TEST(JsonReader, ClosedStateMakesAContainerValidAndItsOtherStatesDoNot) {
  for (const char* begun : {"[", "{"}) {
    for (int state = 0; state < 9; ++state) {
      VisibleReader broken;
      pushAll(broken, begun);
      broken.breakState(static_cast<char>(state));
      EXPECT_EQ(broken.is_valid(), state == 4) << begun << state;
    }
  }
}

TEST(JsonReader, ClearMendsTheState) {
  VisibleReader broken;
  broken.breakState(77);
  broken.clear();
  EXPECT_EQ(broken.currentState(), 0);
  pushAll(broken, "[1]");
  EXPECT_TRUE(broken.is_valid());
}

}  // namespace
