#include "json/repeated_key.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>

namespace json {
namespace {

/// Up to so many keys are compared each with each, more are sorted.
constexpr std::size_t SCAN_LIMIT = 64;

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

using marked_keys = std::vector<marked_key>;

bool is_repeated_in_small(const marked_keys& keys) {
  for (auto key = keys.begin(); key != keys.end(); ++key) {
    if (std::find(keys.begin(), key, *key) != key) {
      return true;
    }
  }
  return false;
}

bool is_repeated_in_large(marked_keys& keys) {
  std::sort(keys.begin(), keys.end());
  return std::adjacent_find(keys.begin(), keys.end()) != keys.end();
}

}  // namespace

bool has_repeated_key(const std::vector<jobject::kvp>& entries) {
  if (entries.size() < 2) {
    return false;
  }
  marked_keys keys;
  keys.reserve(entries.size());
  for (const jobject::kvp& entry : entries) {
    keys.emplace_back(entry.key);
  }
  return keys.size() <= SCAN_LIMIT ? is_repeated_in_small(keys) : is_repeated_in_large(keys);
}

}  // namespace json
