// The input is any text. What the reader answers to each of its characters is compared with the reader written down
// state by state, and what is split off the text at once with the same done character by character.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "LiteralDocument.h"
#include "Require.h"
#include "support/JsonReaderModel.h"
#include "support/VisibleReader.h"

namespace {

using fuzz::outcomeOf;
using fuzz::require;
using fuzz::requireEqual;

/// The models take their time: more than in proportion to the depth.
constexpr std::size_t MOST_BYTES = 512;

/// Offers every character, whatever became of the one before.
template <typename Reader, typename Model>
void compareReaders(Reader& reader, const std::string& text) {
  Model model;
  for (const char c : text) {
    require(reader.push(c) == model.push(c), "a character is answered as the model answers it");
    require(reader.type() == model.type(), "the type is the model's");
    require(reader.is_valid() == model.isValid(), "the value is complete when the model's is");
    require(reader.currentState() == model.currentState(), "the state is the model's");
    requireEqual(reader.readout(), model.readout(), "the text read so far is the model's");
  }
}

/// A reader that has been used before is as good as a new one.
template <typename Reader, typename Model>
void compareReaders(const std::string& text) {
  static Reader used;
  used.clear();
  compareReaders<Reader, Model>(used, text);
  Reader fresh;
  const std::size_t half = text.size() / 2;
  compareReaders<Reader, Model>(fresh, text.substr(0, half));
  fresh.clear();
  compareReaders<Reader, Model>(fresh, text.substr(half));
}

std::string describe(const json::parse_results& results, const char* input) {
  return std::to_string(static_cast<int>(results.type)) + " " + results.value + " rest at " +
         std::to_string(results.remainder - input);
}

std::string describe(const std::vector<std::string>& texts) {
  std::string all = std::to_string(texts.size());
  for (const std::string& text : texts) {
    all += "\n" + text;
  }
  return all;
}

void compareValues(const char* input) {
  requireEqual(outcomeOf([&] { return describe(json::parse_value(input), input); }),
               outcomeOf([&] { return describe(test::modelParseValue(input), input); }), "parse_value is the model's");
  requireEqual(outcomeOf([&] { return describe(json::parse_array(input)); }),
               outcomeOf([&] { return describe(test::modelParseArray(input)); }), "parse_array is the model's");
  requireEqual(outcomeOf([&] { return json::jobject::parse(input).as_string(); }),
               outcomeOf([&] { return fuzz::writeLiterally(test::modelParse(input)); }), "a document is the model's");
}

void compareStrings(const char* input) {
  requireEqual(outcomeOf([&] { return json::decode_string(input); }),
               outcomeOf([&] { return test::modelDecodeString(input); }), "decode_string is the model's");
  const std::string literal = json::escape_string(input);
  requireEqual(literal, fuzz::literalEscape(input), "escape_string is the model's");
  requireEqual(json::decode_string(literal.c_str()), input, "what is escaped is decoded again");
  const std::string blankless = json::skip_whitespace(input);
  requireEqual(json::read_digits(input),
               blankless.substr(0, std::min(blankless.find_first_not_of("0123456789"), blankless.size())),
               "read_digits gives the leading digits");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), std::min(size, MOST_BYTES));
  compareReaders<test::VisibleReader, test::ReaderModel>(text);
  compareReaders<test::VisibleKvpReader, test::KvpReaderModel>(text);
  compareValues(text.c_str());
  compareStrings(text.c_str());
  return 0;
}
