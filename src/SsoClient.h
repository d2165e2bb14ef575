#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "AccessToken.h"
#include "Uuid.h"  // IWYU pragma: export

namespace velo::ssoService {

class KeyCertificateProvider;

/// Gets OAuth 2.0 access tokens for the device by the client-credentials grant (RFC 6749 section 4.4), authenticated by
/// a JWT client assertion (RFC 7523 section 2.2), and keeps one a scope. No lock: one call at a time. Each request
/// blocks its caller for up to 30 seconds.
class SsoClient {
 public:
  /// The URL is that of the identity provider's OpenID configuration; the client id is the provider's certificate id.
  /// The provider stays its owner's and has to outlive this object. Throws SsoException for an empty URL, KCException
  /// for a missing provider, and what getCertificateId throws.
  SsoClient(const std::string& openIdConfigurationUrl, KeyCertificateProvider* provider);

  SsoClient(const SsoClient&) = delete;
  SsoClient& operator=(const SsoClient&) = delete;

  /// Whether the token endpoint is known.
  bool isConfigured() const;

  /// Finds the token endpoint in the OpenID configuration. Throws SsoException and leaves the endpoint unknown.
  void retrieveTokenEndpoint();

  /// An access token for the scope, from the cache while it has 20 seconds left. Throws SsoException or KCException;
  /// other scopes' tokens stay, unless all of them take more than 16 MiB.
  std::string getAccessToken(const std::string& scope);

  /// Fetches a new token for the scope into the cache. Exceptions as above.
  void requestAccessToken(const std::string& scope);

  /// A new client assertion: a signed JWT for the token endpoint, valid for five minutes. Throws KCException when
  /// neither key is there, SsoException when it cannot be signed, and what the provider throws.
  std::string createAuthenticationIdToken();

 private:
  static constexpr std::uint32_t TOKEN_RENEWAL_MARGIN_SECONDS = 20;
  static constexpr long HTTP_TIMEOUT_SECONDS = 30;

  std::string fetchOpenIdConfiguration();
  void readTokenEndpoint(const std::string& configuration);
  std::string postTokenRequest(const std::string& scope, const std::string& assertion);
  void limitCache();

  std::string serverUrl;
  std::string clientId;
  KeyCertificateProvider* keyCertificateProvider;
  std::string tokenEndpoint;
  std::map<std::string, AccessToken> accessTokens;
};

}  // namespace velo::ssoService
