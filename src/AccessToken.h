#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace velo::ssoService {

/// One access token and its expiry, made from the token endpoint's JSON answer.
class AccessToken {
 public:
  AccessToken() = default;

  /// An answer that holds no usable token or lifetime gives a token that is not valid, and log lines that say why.
  /// Never throws.
  explicit AccessToken(const std::string& responseJson) noexcept;

  /// Gives the memory back as well.
  void clear();

  std::string getToken() const { return token; }

  /// About the memory that its text takes.
  std::size_t size() const { return token.capacity(); }

  /// Whether there is a token that does not expire for at least so many seconds.
  bool isValid(std::uint32_t marginSeconds) const;

 private:
  void readToken(const std::string& responseJson);

  std::string token;
  std::int32_t expiresAt = 0;  // seconds since the epoch, in the device's 32-bit time; 0 when not known
};

}  // namespace velo::ssoService
