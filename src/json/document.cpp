#include "json/document.h"

#include <algorithm>
#include <cstddef>
#include <set>
#include <utility>

#include "json/codec.h"
#include "json/errors.h"

namespace json {
namespace {

parsing_error not_an_object() {
  return parsing_error("Input is not a valid object");
}

}  // namespace

/// Finds repeated keys while a document is parsed, where scanning all entries at each append would cost the square of
/// their number. Beyond a handful it keeps an ordered index, which no choice of keys makes slow.
class jobject::duplicate_finder {
 public:
  explicit duplicate_finder(const std::vector<kvp>& parsed_entries)
      : entries(parsed_entries), index(by_key{parsed_entries}) {}

  /// Whether the last entry's key stands in an earlier one. To be asked at each append.
  bool last_is_repeated() {
    const std::size_t last = entries.size() - 1;
    if (last < SCAN_LIMIT) {
      return std::any_of(entries.begin(), entries.end() - 1,
                         [this](const kvp& earlier) { return earlier.key == entries.back().key; });
    }
    while (index.size() < last) {
      index.insert(index.size());
    }
    return !index.insert(last).second;
  }

 private:
  static constexpr std::size_t SCAN_LIMIT = 16;

  struct by_key {
    const std::vector<kvp>& entries;
    bool operator()(std::size_t left, std::size_t right) const { return entries[left].key < entries[right].key; }
  };

  const std::vector<kvp>& entries;
  std::set<std::size_t, by_key> index;
};

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
  position = skip_whitespace(position + 1);
  duplicate_finder duplicates(result.data);
  while (*position != '\0' && *position != closing) {
    position = result.parse_entry(position, duplicates);
  }
  if (*position != closing) {
    throw not_an_object();
  }
  return result;
}

/// Reads and appends the entry at this position and returns where the next one, or the closing bracket, stands.
const char* jobject::parse_entry(const char* position, duplicate_finder& duplicates) {
  kvp parsed;
  if (!array_flag) {
    const parse_results key = parse_value(position);
    if (key.type != jtype::jstring) {
      throw not_an_object();
    }
    parsed.key = decode_string(key.value.c_str());
    position = skip_whitespace(key.remainder);
    if (*position != ':') {
      throw not_an_object();
    }
    ++position;
  }
  parse_results value = parse_value(position);
  if (value.type == jtype::not_valid) {
    throw not_an_object();
  }
  parsed.value = std::move(value.value);
  position = skip_whitespace(value.remainder);
  if (*position != ',' && *position != (array_flag ? ']' : '}')) {
    throw not_an_object();
  }
  data.push_back(std::move(parsed));
  if (!array_flag) {
    check_new_key(data.back().key, duplicates.last_is_repeated());
  }
  return *position == ',' ? position + 1 : position;
}

void jobject::check_new_key(const std::string& key, bool known) {
  if (known) {
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

void jobject::set(const std::string& key, const std::string& value_text) {
  if (array_flag) {
    throw invalid_key(key);
  }
  const auto found =
      std::find_if(data.begin(), data.end(), [&key](const kvp& candidate) { return candidate.key == key; });
  if (found != data.end()) {
    found->value = value_text;
  } else {
    data.emplace_back(key, value_text);
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
    check_new_key(new_entry.key, has_key(new_entry.key));
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
