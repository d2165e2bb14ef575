#pragma once

#include <vector>

#include "json/document.h"

namespace json {

/// Whether two entries have the same key. Looks at all in one go, where scanning those before it at each append would
/// cost the square of their number. No choice of keys makes it slow.
bool has_repeated_key(const std::vector<jobject::kvp>& entries);

}  // namespace json
