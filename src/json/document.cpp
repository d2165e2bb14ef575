#include "json/document.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "json/characters.h"
#include "json/codec.h"
#include "json/errors.h"
#include "json/scanner.h"

namespace json {
namespace {

constexpr std::size_t USUAL_SIZE = 8;

/// So many entries tell how much room the rest needs: growing step by step costs more than reading does.
constexpr std::size_t SAMPLE_SIZE = 1024;
/// Up to so many keys are compared each with each, more are sorted.
constexpr std::size_t SCAN_LIMIT = 64;

parsing_error not_an_object() {
  return parsing_error("Input is not a valid object");
}

/// The eight bytes at this place as a number.
std::uint64_t eight_bytes(const char* place) {
  std::uint64_t number = 0;
  std::memcpy(&number, place, sizeof number);
  return number;
}

/// A key and a number made of its length and some of its bytes, by which most keys differ without a look at their
/// texts.
struct marked_key {
  explicit marked_key(const std::string& text) : mark(text.size()), key(&text) {
    constexpr std::uint64_t ODD_FACTOR = 0x9E3779B97F4A7C15U;  // spreads the bytes over the number
    if (text.size() >= sizeof mark) {
      mark += eight_bytes(text.data()) * ODD_FACTOR ^ eight_bytes(text.data() + text.size() - sizeof mark);
    } else {
      for (const char c : text) {
        mark = mark << CHAR_BIT | static_cast<unsigned char>(c);
      }
    }
  }

  bool operator<(const marked_key& other) const { return mark != other.mark ? mark < other.mark : *key < *other.key; }
  bool operator==(const marked_key& other) const { return mark == other.mark && *key == *other.key; }

  std::uint64_t mark;
  const std::string* key;
};

}  // namespace

jobject::kvp::kvp(std::string entry_key, std::string value_text)
    : key(std::move(entry_key)), value(std::move(value_text)) {
}

jobject jobject::parse(const char* input) {
  const char* position = skip_whitespace(input);
  if (*position != '{' && *position != '[') {
    throw not_an_object();
  }
  jobject result(*position == '[');
  const char closing = result.array_flag ? ']' : '}';
  const char* const begin = position;
  position = skip_whitespace(position + 1);
  scanner value_scanner;
  try {
    while (*position != '\0' && *position != closing) {
      if (result.data.size() == SAMPLE_SIZE) {
        const std::size_t usual_length = static_cast<std::size_t>(position - begin) / SAMPLE_SIZE;
        result.data.reserve(SAMPLE_SIZE + std::strlen(position) / usual_length);
      }
      position = result.parse_entry(position, value_scanner);
    }
  } catch (const parsing_error&) {
    result.check_distinct_keys();  // of several errors the first in the text counts
    throw;
  }
  result.check_distinct_keys();
  if (*position != closing) {
    throw not_an_object();
  }
  return result;
}

/// Reads and appends the entry at this position and returns where the next one, or the closing bracket, stands.
const char* jobject::parse_entry(const char* position, scanner& value_scanner) {
  std::string key;
  if (!array_flag) {
    if (value_scanner.read(position) != jtype::jstring) {
      throw not_an_object();
    }
    key = decode_string(value_scanner.begin());
    position = skip_whitespace(value_scanner.end());
    if (*position != ':') {
      throw not_an_object();
    }
    ++position;
  }
  if (value_scanner.read(position) == jtype::not_valid) {
    throw not_an_object();
  }
  position = skip_whitespace(value_scanner.end());
  if (*position != ',' && *position != (array_flag ? ']' : '}')) {
    throw not_an_object();
  }
  if (!array_flag && key.empty()) {
    throw parsing_error("Missing key");
  }
  if (data.empty()) {
    data.reserve(USUAL_SIZE);
  }
  data.emplace_back(std::move(key), value_scanner.text());
  return *position == ',' ? position + 1 : position;
}

/// Looks for repeated keys in one go, where scanning all entries at each append would cost the square of their number.
/// Sorting, no choice of keys makes it slow. Throws parsing_error "Key conflict".
void jobject::check_distinct_keys() const {
  if (array_flag || data.size() < 2) {
    return;
  }
  std::vector<marked_key> keys;
  keys.reserve(data.size());
  for (const kvp& known : data) {
    keys.emplace_back(known.key);
    if (data.size() <= SCAN_LIMIT && std::find(keys.begin(), keys.end() - 1, keys.back()) != keys.end() - 1) {
      throw parsing_error("Key conflict");
    }
  }
  if (data.size() <= SCAN_LIMIT) {
    return;
  }
  std::sort(keys.begin(), keys.end());
  if (std::adjacent_find(keys.begin(), keys.end()) != keys.end()) {
    throw parsing_error("Key conflict");
  }
}

void jobject::check_new_key(const std::string& key) const {
  if (has_key(key)) {
    throw parsing_error("Key conflict");
  }
  if (key.empty()) {
    throw parsing_error("Missing key");
  }
}

bool jobject::has_key(const std::string& key) const {
  return !array_flag &&
         std::any_of(data.begin(), data.end(), [&key](const kvp& candidate) { return candidate.key == key; });
}

void jobject::set(const std::string& key, std::string value_text) {
  if (array_flag) {
    throw invalid_key(key);
  }
  const auto found =
      std::find_if(data.begin(), data.end(), [&key](const kvp& candidate) { return candidate.key == key; });
  if (found != data.end()) {
    found->value = std::move(value_text);
  } else {
    data.emplace_back(key, std::move(value_text));
  }
}

void jobject::remove(const std::string& key) {
  for (std::size_t index = 0; index < data.size(); ++index) {
    if (data[index].key == key) {
      // Kept: the scan goes on behind the entry that moves up, so of two adjacent equal keys the second stays.
      data.erase(data.begin() + static_cast<std::ptrdiff_t>(index));
    }
  }
}

jobject& jobject::operator+=(const kvp& new_entry) {
  if (!array_flag) {
    check_new_key(new_entry.key);
  } else if (!new_entry.key.empty()) {
    throw parsing_error("Array cannot have key");
  }
  data.push_back(new_entry);
  return *this;
}

jobject::proxy jobject::operator[](const std::string& key) {
  if (array_flag) {
    throw invalid_key(key);
  }
  return proxy(*this, key);
}

jobject::const_proxy jobject::operator[](const std::string& key) const {
  if (array_flag) {
    throw invalid_key(key);
  }
  return const_proxy(*this, key);
}

jobject::const_value jobject::at(std::size_t index) const {
  return const_value(data.at(index).value);
}

std::vector<std::string> jobject::list_keys() const {
  std::vector<std::string> keys;
  if (!array_flag) {
    for (const kvp& listed : data) {
      keys.push_back(listed.key);
    }
  }
  return keys;
}

}  // namespace json
