#pragma once

#include <string>

#include "json/json.h"

namespace velo::ssoService {

// Whether a document has a member of this name and type. False for every key of an array. They throw nothing for a
// document that was parsed.

inline bool hasString(const json::jobject& document, const std::string& key) {
  return document.has_key(key) && document[key].is_string();
}

inline bool hasNumber(const json::jobject& document, const std::string& key) {
  return document.has_key(key) && document[key].is_number();
}

inline bool hasBool(const json::jobject& document, const std::string& key) {
  return document.has_key(key) && document[key].is_bool();
}

/// True for an array as well, as everywhere in the JSON library.
inline bool hasObject(const json::jobject& document, const std::string& key) {
  return document.has_key(key) && document[key].is_object();
}

inline bool hasArray(const json::jobject& document, const std::string& key) {
  return document.has_key(key) && document[key].is_array();
}

}  // namespace velo::ssoService
