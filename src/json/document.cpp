#include "json/document.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

#include "json/characters.h"
#include "json/codec.h"
#include "json/errors.h"
#include "json/repeated_key.h"
#include "json/scanner.h"

namespace json {
namespace {

constexpr std::size_t USUAL_SIZE = 8;

/// So many entries tell how much room the rest needs: growing step by step costs more than reading does.
constexpr std::size_t SAMPLE_SIZE = 1024;
/// In case the rest is nothing like them.
constexpr std::size_t LARGEST_GUESS = std::size_t{512} * 1024;

parsing_error not_an_object() {
  return parsing_error("Input is not a valid object");
}

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
        result.data.reserve(SAMPLE_SIZE + std::min(std::strlen(position) / usual_length, LARGEST_GUESS));
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

void jobject::check_distinct_keys() const {
  if (!array_flag && has_repeated_key(data)) {
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
