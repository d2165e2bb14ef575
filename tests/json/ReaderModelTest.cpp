// json::reader and json::kvp_reader compared with their slow models, character by character.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/JsonCorpus.h"
#include "support/JsonReaderModel.h"
#include "support/RandomJson.h"
#include "support/VisibleReader.h"

namespace {

using test::KvpReaderModel;
using test::ReaderModel;
using test::VisibleKvpReader;
using test::VisibleReader;

const std::vector<std::string> GARBAGE = {
    " ", ",", "]", "}", ":", "\"", "x", "0", "\\", "[", "{", "/", std::string(1, '\0')};

template <typename Reader, typename Model>
bool looksLike(const Reader& reader, const Model& model) {
  return reader.type() == model.type() && reader.is_valid() == model.isValid() &&
         reader.currentState() == model.currentState() && reader.readout() == model.readout();
}

template <typename Reader, typename Model>
std::string difference(const Reader& reader, const Model& model) {
  const auto describe = [](auto type, bool valid, int state, const std::string& text) {
    return "type " + std::to_string(static_cast<int>(type)) + " valid " + std::to_string(valid) + " state " +
           std::to_string(state) + " text " + testing::PrintToString(text);
  };
  return "reader: " + describe(reader.type(), reader.is_valid(), reader.currentState(), reader.readout()) +
         "\n model: " + describe(model.type(), model.isValid(), model.currentState(), model.readout());
}

/// Pushes the text into both and compares the answer and all that can be seen after every character.
template <typename Reader, typename Model>
testing::AssertionResult answersAlike(Reader& reader, Model& model, const std::string& text) {
  for (std::size_t position = 0; position < text.size(); ++position) {
    const auto answer = reader.push(text[position]);
    const auto expected = model.push(text[position]);
    if (answer != expected || !looksLike(reader, model)) {
      return testing::AssertionFailure() << testing::PrintToString(text) << " at " << position << "\nanswer " << answer
                                         << ", expected " << expected << "\n"
                                         << difference(reader, model);
    }
  }
  return testing::AssertionSuccess();
}

template <typename Reader, typename Model>
testing::AssertionResult answersAlike(const std::string& text) {
  Reader reader;
  Model model;
  return answersAlike(reader, model, text);
}

/// The texts of the corpus, and for the reader of pairs also as values of a key and without an opening brace.
std::vector<std::string> pairTexts() {
  std::vector<std::string> texts;
  for (const test::JsonSample& sample : test::jsonSamples()) {
    const std::string text = sample.text;
    texts.push_back(text);
    texts.push_back("\"key\":" + text);
    texts.push_back(" \"a\\u0041\" : " + text);
    if (text.front() == '{') {
      texts.push_back(text.substr(1));
    }
  }
  return texts;
}

TEST(JsonReaderModel, AgreesWithTheExpectedValuesOfTheCorpus) {
  for (const test::JsonSample& sample : test::jsonSamples()) {
    const std::string text = sample.text;
    ReaderModel model;
    std::size_t position = 0;
    while (position < text.size() && model.push(text[position]) != json::reader::REJECTED) {
      ++position;
    }
    EXPECT_EQ(model.isValid() ? model.readout() : "", sample.value) << text;
    EXPECT_EQ(text.substr(position), sample.rest) << text;
  }
}

TEST(JsonReaderAgainstModel, WholeTexts) {
  for (const test::JsonSample& sample : test::jsonSamples()) {
    EXPECT_TRUE((answersAlike<VisibleReader, ReaderModel>(sample.text)));
  }
}

TEST(JsonReaderAgainstModel, WholePairs) {
  for (const std::string& text : pairTexts()) {
    EXPECT_TRUE((answersAlike<VisibleKvpReader, KvpReaderModel>(text)));
  }
}

TEST(JsonReaderAgainstModel, TextsFollowedByGarbage) {
  for (const test::JsonSample& sample : test::jsonSamples()) {
    for (const std::string& garbage : GARBAGE) {
      EXPECT_TRUE((answersAlike<VisibleReader, ReaderModel>(sample.text + garbage + sample.text)));
      EXPECT_TRUE(
          (answersAlike<VisibleKvpReader, KvpReaderModel>(std::string("\"k\":") + sample.text + garbage + "1")));
    }
  }
}

TEST(JsonReaderAgainstModel, TextsCutAtEveryLengthAndFollowedByGarbage) {
  for (const test::JsonSample& sample : test::jsonSamples()) {
    const std::string text = sample.text;
    for (std::size_t length = 0; length < text.size(); ++length) {
      for (const std::string& garbage : GARBAGE) {
        ASSERT_TRUE((answersAlike<VisibleReader, ReaderModel>(text.substr(0, length) + garbage + text.substr(length))));
      }
    }
  }
}

template <typename Reader, typename Model>
void expectClearedReaderToBeginAnew(const std::string& text) {
  for (std::size_t split = 0; split <= text.size(); ++split) {
    Reader reader;
    Model model;
    ASSERT_TRUE(answersAlike(reader, model, text.substr(0, split)));
    reader.clear();
    model.clear();
    ASSERT_TRUE(looksLike(reader, model)) << text << " cleared at " << split;
    ASSERT_TRUE(answersAlike(reader, model, text.substr(split)));
    reader.clear();
    ASSERT_EQ(reader.readout(), Reader().readout());
    Model fresh;
    ASSERT_TRUE(answersAlike(reader, fresh, text)) << "cleared at " << split;
  }
}

TEST(JsonReaderAgainstModel, ClearedAtEveryPosition) {
  for (const test::JsonSample& sample : test::jsonSamples()) {
    expectClearedReaderToBeginAnew<VisibleReader, ReaderModel>(sample.text);
  }
}

TEST(JsonReaderAgainstModel, PairsClearedAtEveryPosition) {
  for (const std::string& text : pairTexts()) {
    expectClearedReaderToBeginAnew<VisibleKvpReader, KvpReaderModel>(text);
  }
}

TEST(JsonReaderAgainstModel, EveryByteAfterEveryPrefix) {
  for (const test::JsonSample& sample : test::jsonSamples()) {
    VisibleReader reader;
    ReaderModel model;
    for (const char* c = sample.text;; ++c) {
      for (int byte = 0; byte < 256; ++byte) {
        VisibleReader readerCopy = reader;
        const std::unique_ptr<ReaderModel> modelCopy = model.clone();
        ASSERT_TRUE(answersAlike(readerCopy, *modelCopy, std::string(1, static_cast<char>(byte))))
            << "after " << std::string(static_cast<const char*>(sample.text), c);
      }
      if (*c == '\0') {
        break;
      }
      reader.push(*c);
      model.push(*c);
    }
  }
}

/// What a reader makes of a text when characters that it rejects are offered to it in between.
TEST(JsonReader, RejectedCharacterLeavesReaderUnchanged) {
  const std::string probes("]},:\"\\/x0-.e \0", 14);
  for (const test::JsonSample& sample : test::jsonSamples()) {
    for (const char probe : probes) {
      VisibleReader undisturbed;
      VisibleReader disturbed;
      for (const char* c = sample.text; *c != '\0'; ++c) {
        if (VisibleReader(disturbed).push(probe) == json::reader::REJECTED) {
          disturbed.push(probe);
        }
        ASSERT_EQ(disturbed.push(*c), undisturbed.push(*c)) << sample.text << " with " << probe;
        ASSERT_EQ(disturbed.readout(), undisturbed.readout()) << sample.text << " with " << probe;
        ASSERT_EQ(disturbed.is_valid(), undisturbed.is_valid()) << sample.text << " with " << probe;
        ASSERT_EQ(disturbed.currentState(), undisturbed.currentState()) << sample.text << " with " << probe;
      }
    }
  }
}

/// Tries every character of an alphabet behind every text that is accepted, up to a length. Returns the number of
/// texts.
template <typename Reader>
std::size_t exploreAcceptedTexts(const Reader& reader, const ReaderModel& model, const std::string& text,
                                 unsigned length) {
  static const std::string alphabet = "[]{},:\"\\u10.-eE+tn ";
  std::size_t tried = 0;
  for (const char c : alphabet) {
    Reader nextReader = reader;
    const std::unique_ptr<ReaderModel> nextModel = model.clone();
    const auto answer = nextReader.push(c);
    if (answer != nextModel->push(c) || !looksLike(nextReader, *nextModel)) {
      ADD_FAILURE() << text << c << "\nanswer " << answer << "\n" << difference(nextReader, *nextModel);
    }
    ++tried;
    if (answer != json::reader::REJECTED && length > 1 && !testing::Test::HasFailure()) {
      tried += exploreAcceptedTexts(nextReader, *nextModel, text + c, length - 1);
    }
  }
  return tried;
}

TEST(JsonReaderAgainstModel, EveryShortText) {
  EXPECT_GT(exploreAcceptedTexts(VisibleReader(), ReaderModel(), "", 6), 1000000U);
}

TEST(JsonReaderAgainstModel, EveryShortElementOfAnArrayInAnObject) {
  VisibleReader reader;
  ReaderModel model;
  ASSERT_TRUE(answersAlike(reader, model, "{\"a\":[1,"));
  EXPECT_GT(exploreAcceptedTexts(reader, model, "{\"a\":[1,", 5), 100000U);
}

TEST(JsonReaderAgainstModel, EveryShortValueOfAPair) {
  VisibleKvpReader reader;
  KvpReaderModel model;
  ASSERT_TRUE(answersAlike(reader, model, "\"a\""));
  EXPECT_GT(exploreAcceptedTexts(reader, model, "\"a\"", 6), 100000U);
}

TEST(JsonReaderAgainstModel, RandomTexts) {
  test::RandomJson random;
  for (std::size_t round = test::RandomJson::rounds(300000); round > 0; --round) {
    ASSERT_TRUE((answersAlike<VisibleReader, ReaderModel>(random.text()))) << "SSO_TEST_SEED=" << random.seed();
  }
}

TEST(JsonReaderAgainstModel, RandomPairs) {
  test::RandomJson random;
  for (std::size_t round = test::RandomJson::rounds(100000); round > 0; --round) {
    const std::string text = random.below(8) == 0 ? random.text() : "\"k\":" + random.text();
    ASSERT_TRUE((answersAlike<VisibleKvpReader, KvpReaderModel>(text))) << "SSO_TEST_SEED=" << random.seed();
  }
}

}  // namespace
