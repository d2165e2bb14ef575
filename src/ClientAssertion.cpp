// The JWT by which the device authenticates itself to the token endpoint.

#include <jwt-cpp/jwt.h>

#include <chrono>

#include "KCException.h"
#include "SsoClient.h"
#include "SsoException.h"
#include "Uuid.h"
#include "kcProviders/KeyCertificateProvider.h"
#include "logging/logging.h"
#include "util/Clock.h"
#include "util/Secrets.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "SsoClient";
constexpr std::size_t SHORTEST_KEY_TEXT = 10;
constexpr std::chrono::minutes ASSERTION_LIFETIME{5};

}  // namespace

std::string SsoClient::createAuthenticationIdToken() {
  const StackWiper wiper;
  const std::string publicKey = keyCertificateProvider->getPublicKey(false);
  const SecretText privateKey(keyCertificateProvider->getPrivateKey(false));
  // Kept: one key text alone that is too short is left to the JWT library.
  if (publicKey.size() < SHORTEST_KEY_TEXT && privateKey.get().size() < SHORTEST_KEY_TEXT) {
    LOG_ERROR("Cannot create authentication id token. No valid x509 key or certificate");
    throw KCException("Cannot create authentication id token. No valid x509 key or certificate");
  }
  try {
    const std::string id = uuidToString(generateRandomUuid());
    const std::chrono::system_clock::time_point now = currentTime();
    return jwt::create()
        .set_type("JWT")
        .set_subject(clientId)
        .set_id(id)
        .set_not_before(now)
        .set_expires_at(now + ASSERTION_LIFETIME)
        .set_issued_at(now)
        .set_issuer(clientId)
        .set_audience(tokenEndpoint)
        .sign(jwt::algorithm::rs256(publicKey, privateKey.get(), "", ""));
  } catch (const std::exception& reason) {
    LOG_ERROR("Error creating SSO authentication id token: %s", reason.what());
    throw SsoException(std::string("Error creating SSO authentication id token: ") + reason.what());
  }
}

}  // namespace velo::ssoService
