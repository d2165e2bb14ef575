#include "AccessToken.h"

#include "json/json.h"
#include "logging/logging.h"
#include "util/Clock.h"
#include "util/JsonMembers.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "AccessToken";

/// The 32-bit time so many seconds after another one; both wrap around together.
std::int32_t addSeconds(std::int64_t time, std::int64_t seconds) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(time) + static_cast<std::uint32_t>(seconds));
}

}  // namespace

AccessToken::AccessToken(const std::string& responseJson) noexcept {
  try {
    readToken(responseJson);
  } catch (const std::exception& reason) {
    LOG_ERROR("Error processing toke json: %s Error:%s", log_secret(responseJson), reason.what());
    clear();
  }
}

void AccessToken::readToken(const std::string& responseJson) {
  const json::jobject answer = json::jobject::parse(responseJson);
  if (hasString(answer, "access_token")) {
    token = answer["access_token"].as_string();
    LOG_DEBUG("Access token: ");  // Kept: the token itself is never part of this line.
  } else {
    LOG_ERROR("No access_token found in %s", log_secret(responseJson));
  }
  if (hasNumber(answer, "expires_in")) {
    const long lifetime = std::stoi(answer["expires_in"].as_string());
    expiresAt = addSeconds(currentSeconds(), lifetime);
    LOG_INFO("Access token expires in %ld seconds", lifetime);
  } else {
    LOG_ERROR("No token expiration time found");
  }
}

void AccessToken::clear() {
  std::string().swap(token);
  expiresAt = 0;
}

bool AccessToken::isValid(std::uint32_t marginSeconds) const {
  if (token.empty()) {
    return false;
  }
  const std::int64_t secondsLeft = addSeconds(expiresAt, -currentSeconds());
  return secondsLeft >= std::int64_t{marginSeconds};
}

}  // namespace velo::ssoService
