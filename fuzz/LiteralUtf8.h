#pragma once

#include <string>

namespace fuzz {

/// Whether a text, which ends at its first NUL, is well-formed UTF-8 (RFC 3629).
bool isUtf8(const std::string& text);

}  // namespace fuzz
