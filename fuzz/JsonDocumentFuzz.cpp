// The input is a sequence of operations on a document. Each is also carried out, as it is written down, on a plain list
// of keys and values; results, exceptions and the document's text have to be the same.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "Input.h"
#include "LiteralDocument.h"
#include "LiteralPretty.h"
#include "Require.h"

namespace {

using fuzz::DocumentModel;
using fuzz::Input;
using fuzz::outcomeOf;
using fuzz::requireEqual;
using json::jobject;
using json::jtype;

/// So many operations at most: the text of a document can double with each.
constexpr int MOST_OPERATIONS = 64;
constexpr std::size_t MOST_BYTES = 4096;

/// The document and the list that stands for it.
struct Pair {
  jobject document;
  DocumentModel model;
};

std::string joined(const std::vector<std::string>& texts) {
  std::string all = std::to_string(texts.size());
  for (const std::string& text : texts) {
    all += "\n" + text;
  }
  return all;
}

// The operations on the list.

void setLiterally(DocumentModel& model, const std::string& key, const std::string& value) {
  if (model.array) {
    throw json::invalid_key(key);
  }
  for (auto& entry : model.entries) {
    if (entry.first == key) {
      entry.second = value;
      return;
    }
  }
  model.entries.emplace_back(key, value);
}

void removeLiterally(DocumentModel& model, const std::string& key) {
  for (std::size_t i = 0; i < model.entries.size(); ++i) {
    if (model.entries[i].first == key) {
      model.entries.erase(model.entries.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }
}

void appendLiterally(DocumentModel& model, const std::string& key, const std::string& value) {
  if (!model.array && fuzz::findMember(model, key) != nullptr) {
    throw json::parsing_error("Key conflict");
  }
  if (model.array && !key.empty()) {
    throw json::parsing_error("Array cannot have key");
  }
  if (!model.array && key.empty()) {
    throw json::parsing_error("Missing key");
  }
  model.entries.emplace_back(key, value);
}

const std::string& readLiterally(const DocumentModel& model, const std::string& key) {
  const std::string* const value = fuzz::findMember(model, key);
  if (value == nullptr) {
    throw json::invalid_key(key);
  }
  return *value;
}

std::string arrayLiterally(const std::vector<std::string>& values, bool quote) {
  std::string text;
  for (const std::string& value : values) {
    text += (quote ? fuzz::literalEscape(value) : value) + ",";
  }
  return "[" + (text.empty() ? text : text.substr(0, text.size() - 1)) + "]";
}

// Values read in types.

template <typename T>
std::string numberText(T value) {
  std::array<char, 64> text{};
  static_cast<void>(std::snprintf(text.data(), text.size(), "%a", static_cast<double>(value)));
  return text.data();
}

template <typename T>
T scanLiterally(const std::string& text, const char* format) {
  T value{};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  static_cast<void>(std::sscanf(text.c_str(), format, &value));
#pragma GCC diagnostic pop
  return value;
}

template <typename T>
void compareNumbers(const jobject::entry& value, const char* format) {
  requireEqual(numberText(static_cast<T>(value)), numberText(scanLiterally<T>(value.ref(), format)),
               "a number is what sscanf makes of the text");
  requireEqual(outcomeOf([&] {
                 std::string all;
                 for (const T number : static_cast<std::vector<T>>(value)) {
                   all += numberText(number) + " ";
                 }
                 return all;
               }),
               outcomeOf([&] {
                 std::string all;
                 for (const std::string& element : test::modelParseArray(value.ref().c_str())) {
                   all += numberText(scanLiterally<T>(element, format)) + " ";
                 }
                 return all;
               }),
               "the numbers of an array are what sscanf makes of its elements");
}

std::string typesLiterally(const std::string& text) {
  const jtype type = fuzz::literalType(text);
  std::string types;
  for (const bool is : {type == jtype::jstring, type == jtype::jnumber, type == jtype::jobject || type == jtype::jarray,
                        type == jtype::jarray, type == jtype::jbool}) {
    types += is ? '1' : '0';
  }
  return types;
}

std::string typesOf(const jobject::entry& value) {
  std::string types;
  for (const bool is : {value.is_string(), value.is_number(), value.is_object(), value.is_array(), value.is_bool()}) {
    types += is ? '1' : '0';
  }
  return types;
}

void compareValue(const jobject::entry& value, const std::string& text) {
  requireEqual(value.ref(), text, "a value's text is the stored one");
  requireEqual(outcomeOf([&] { return value.as_string(); }), outcomeOf([&] { return fuzz::literalText(text); }),
               "a value reads as plain text");
  requireEqual(outcomeOf([&] { return typesOf(value); }), outcomeOf([&] { return typesLiterally(text); }),
               "a value is of its type");
  requireEqual(outcomeOf([&] { return value.as_object().as_string(); }),
               outcomeOf([&] { return fuzz::writeLiterally(test::modelParse(text.c_str())); }),
               "a value reads as a document");
  compareNumbers<int>(value, "%i");
  compareNumbers<unsigned int>(value, "%u");
  compareNumbers<long>(value, "%li");
  compareNumbers<unsigned long>(value, "%lu");
  compareNumbers<char>(value, "%c");
  compareNumbers<float>(value, "%f");
  compareNumbers<double>(value, "%lf");
}

// The operations, each on both.

void change(Pair& pair, const std::function<void(jobject&)>& real, const std::function<void(DocumentModel&)>& model) {
  requireEqual(outcomeOf([&] { return real(pair.document), ""; }), outcomeOf([&] { return model(pair.model), ""; }),
               "an operation throws what it is to throw");
}

void assign(Pair& pair, const std::string& key, const std::string& text) {
  change(
      pair, [&](jobject& document) { document[key] = text; },
      [&](DocumentModel& model) { setLiterally(model, key, fuzz::literalEscape(text)); });
}

/// Assigns the document a copy of itself, or of a document in a text.
void nest(Pair& pair, const std::string& key, const std::string& text) {
  change(
      pair,
      [&](jobject& document) {
        const jobject nested = text.empty() ? document : jobject::parse(text);
        document[key] = nested;
      },
      [&](DocumentModel& model) {
        const DocumentModel nested = text.empty() ? model : test::modelParse(text.c_str());
        setLiterally(model, key, fuzz::writeLiterally(nested));
      });
}

void assignArray(Pair& pair, const std::string& key, Input& input) {
  const bool quote = input.flag();
  std::vector<std::string> values;
  for (std::size_t count = input.below(4); count > 0; --count) {
    values.push_back(input.piece());
  }
  change(
      pair, [&](jobject& document) { document[key].set_array(values, quote); },
      [&](DocumentModel& model) { setLiterally(model, key, arrayLiterally(values, quote)); });
}

/// Replaces both by what is read from a text, if it can be read.
void parse(Pair& pair, const std::string& text) {
  change(
      pair, [&](jobject& document) { document = jobject::parse(text); },
      [&](DocumentModel& model) { model = test::modelParse(text.c_str()); });
}

void readMember(const Pair& pair, const std::string& key) {
  const std::string found = outcomeOf([&] { return readLiterally(pair.model, key); });
  requireEqual(outcomeOf([&] { return pair.document[key].ref(); }), found, "a member is found by its key");
  jobject copy = pair.document;
  requireEqual(outcomeOf([&] { return copy[key].ref(); }), found, "a member is found for writing, too");
  fuzz::require(pair.document.has_key(key) == (fuzz::findMember(pair.model, key) != nullptr), "a key is there or not");
  if (pair.document.has_key(key)) {
    compareValue(pair.document[key], readLiterally(pair.model, key));
  }
}

void readElement(const Pair& pair, std::size_t index) {
  if (index < pair.model.entries.size()) {
    compareValue(pair.document.at(index), pair.model.entries[index].second);
    return;
  }
  try {
    static_cast<void>(pair.document.at(index));
  } catch (const std::out_of_range&) {
    return;
  }
  fuzz::require(false, "there is no element behind the last one");
}

void compareTexts(const Pair& pair, unsigned indent) {
  requireEqual(outcomeOf([&] { return pair.document.pretty(indent); }),
               outcomeOf([&] { return fuzz::prettyLiterally(pair.model, indent); }),
               "the indented text is the model's");
  std::vector<std::string> keys;
  for (const auto& entry : pair.model.entries) {
    keys.push_back(entry.first);
  }
  requireEqual(joined(pair.document.list_keys()), joined(pair.model.array ? std::vector<std::string>() : keys),
               "the keys are the model's");
}

void operate(Pair& pair, Input& input) {
  const std::size_t operation = input.below(12);
  const std::string key = input.piece();
  switch (operation) {
    case 0:
      return assign(pair, key, input.piece());
    case 1:
      return change(
          pair, [&](jobject& document) { document.remove(key); },
          [&](DocumentModel& model) { removeLiterally(model, key); });
    case 2: {
      const std::string value = input.piece();
      return change(
          pair, [&](jobject& document) { document += jobject::kvp(key, value); },
          [&](DocumentModel& model) { appendLiterally(model, key, value); });
    }
    case 3: {
      const std::string value = input.piece();
      return change(
          pair, [&](jobject& document) { document.set(key, value); },
          [&](DocumentModel& model) { setLiterally(model, key, value); });
    }
    case 4:
      return nest(pair, key, input.piece());
    case 5:
      return assignArray(pair, key, input);
    case 6:
      return parse(pair, key);
    case 7:
      return parse(pair, pair.document.as_string());
    case 8:
      return readMember(pair, key);
    case 9:
      return readElement(pair, input.byte());
    case 10:
      return compareTexts(pair, static_cast<unsigned>(input.below(4)));
    default:
      pair.model = {input.flag(), {}};
      pair.document = jobject(pair.model.array);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Pair pair;
  for (int count = 0; count < MOST_OPERATIONS && !input.isEmpty(); ++count) {
    operate(pair, input);
    const std::string text = pair.document.as_string();
    requireEqual(text, fuzz::writeLiterally(pair.model), "the text is the model's");
    fuzz::require(pair.document.size() == pair.model.entries.size() && pair.document.is_array() == pair.model.array,
                  "the document is as large and of the kind of the model");
    if (text.size() > MOST_BYTES) {
      break;
    }
  }
  compareTexts(pair, 0);
  return 0;
}
