#pragma once

#include <string>

namespace test {

/// The three parts of a compact signed token (RFC 7515).
struct DecodedToken {
  std::string header;      ///< JSON text
  std::string payload;     ///< JSON text
  std::string signature;   ///< bytes
  std::string signedText;  ///< what the signature is over

  /// Throws when the text has not exactly three parts of base64url characters.
  explicit DecodedToken(const std::string& compact);
};

}  // namespace test
