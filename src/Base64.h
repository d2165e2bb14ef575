#pragma once

#include <string>

namespace velo::ssoService {

/// Decodes base64 (the standard alphabet of RFC 4648) up to the first character outside the alphabet, "=" and line
/// breaks included. A last group of two or three characters gives one or two bytes, a single one nothing.
std::string base64Decode(const std::string& text);

}  // namespace velo::ssoService
