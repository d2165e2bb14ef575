#include "SsoClient.h"

#include <openssl/ssl.h>

#include <iterator>

#include "KCException.h"
#include "SsoException.h"
#include "json/json.h"
#include "kcProviders/KeyCertificateProvider.h"
#include "logging/logging.h"
#include "util/HttpExchange.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "SsoClient";
constexpr std::size_t MOST_CACHED_BYTES = std::size_t{16} * 1024 * 1024;
constexpr std::size_t CACHE_ENTRY_BYTES = 128;  // beside the texts, about

}  // namespace

SsoClient::SsoClient(const std::string& openIdConfigurationUrl, KeyCertificateProvider* provider)
    : serverUrl(openIdConfigurationUrl), keyCertificateProvider(provider) {
  if (serverUrl.empty()) {
    throw SsoException("Cannot create SSO client: server URL not specified");
  }
  if (keyCertificateProvider == nullptr) {
    throw KCException("Cannot create SSO client: no certificate provider given");
  }
  clientId = keyCertificateProvider->getCertificateId(false);
}

bool SsoClient::isConfigured() const {
  return !serverUrl.empty() && !tokenEndpoint.empty();
}

void SsoClient::retrieveTokenEndpoint() {
  LOG_DEBUG("Obtaining SSO token endpoint from URL: %s", serverUrl.c_str());
  tokenEndpoint.clear();
  if (serverUrl.find("http") == std::string::npos) {  // Kept: anywhere in the URL will do.
    LOG_ERROR("Invalid sso URL: %s", serverUrl.c_str());
    throw SsoException("Invalid sso URL: " + serverUrl);
  }
  readTokenEndpoint(fetchOpenIdConfiguration());
  if (tokenEndpoint.empty()) {
    throw SsoException("Couldn't retrieve SSO token endpoint from " + serverUrl + ". Missing endpoint ");
  }
}

/// The body of the OpenID configuration document.
std::string SsoClient::fetchOpenIdConfiguration() {
  LOG_DEBUG("Requesting OpenId Configuration from URL: %s", serverUrl.c_str());
  HttpExchange exchange;
  if (!exchange.isReady()) {
    LOG_ERROR("Couldn't retrieve SSO token endpoint from %s. Curl init failed", serverUrl.c_str());
    throw SsoException("Couldn't retrieve SSO token endpoint from " + serverUrl + ". Curl init failed");
  }
  std::string body;
  exchange.set(CURLOPT_TIMEOUT, HTTP_TIMEOUT_SECONDS);
  exchange.set(CURLOPT_URL, serverUrl.c_str());
  exchange.set(CURLOPT_HTTPGET, 1L);
  exchange.set(CURLOPT_FOLLOWLOCATION, 1L);
  exchange.set(CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_V4));
  exchange.set(CURLOPT_NOPROGRESS, 1L);
  exchange.set(CURLOPT_MAXREDIRS, 50L);
  exchange.set(CURLOPT_TCP_KEEPALIVE, 1L);
  exchange.collectBody(body);
  if (const char* error = exchange.perform()) {
    LOG_ERROR("curl_easy_perform() failed: %s", error);
    // Kept: the one text here that lacks the word token.
    throw SsoException("Couldn't retrieve SSO endpoint from " + serverUrl + ". Error: " + error);
  }
  const long status = exchange.status();
  LOG_DEBUG("Curl response code: %d", static_cast<int>(status));
  LOG_DEBUG("Curl results: %s", body.c_str());
  if (!isSuccess(status)) {
    LOG_ERROR("Curl response code: %d", static_cast<int>(status));
    throw SsoException("Couldn't retrieve SSO token endpoint from " + serverUrl +
                       ". Return code: " + std::to_string(status));
  }
  return body;
}

void SsoClient::readTokenEndpoint(const std::string& configuration) {
  try {
    const json::jobject document = json::jobject::parse(configuration);
    if (document["token_endpoint"].is_string()) {
      tokenEndpoint = document["token_endpoint"].as_string();
      LOG_DEBUG("found token_endpoint: %s", tokenEndpoint.c_str());
    } else {
      LOG_ERROR("Missing token_endpoint tag");
    }
  } catch (const std::exception&) {
    // Kept: the reason is not told, a document without the member counts as invalid too.
    LOG_ERROR("Not a valid JSON.");
    throw SsoException("Couldn't retrieve SSO token endpoint from " + serverUrl + ". Received invalid json " +
                       configuration);
  }
}

std::string SsoClient::getAccessToken(const std::string& scope) {
  const auto cached = accessTokens.find(scope);
  if (cached != accessTokens.end() && cached->second.isValid(TOKEN_RENEWAL_MARGIN_SECONDS)) {
    return cached->second.getToken();
  }
  if (!isConfigured()) {
    retrieveTokenEndpoint();
  }
  requestAccessToken(scope);
  return accessTokens[scope].getToken();
}

/// Empties the cache when it holds more than any device needs: local programs may make scopes up.
void SsoClient::limitCache() {
  std::size_t bytes = 0;
  for (const auto& [scope, token] : accessTokens) {
    bytes += CACHE_ENTRY_BYTES + scope.size() + token.size();
  }
  if (bytes > MOST_CACHED_BYTES) {
    accessTokens.clear();
  }
}

void SsoClient::requestAccessToken(const std::string& scope) {
  limitCache();
  accessTokens[scope].clear();
  const std::string assertion = createAuthenticationIdToken();
  OPENSSL_init_ssl(0, nullptr);
  const AccessToken& fetched = accessTokens[scope] = AccessToken(postTokenRequest(scope, assertion));
  if (!fetched.isValid(TOKEN_RENEWAL_MARGIN_SECONDS)) {
    LOG_ERROR("Not a valid JSON.");
    throw SsoException("Couldn't create valid access token");
  }
}

/// The token endpoint's answer.
std::string SsoClient::postTokenRequest(const std::string& scope, const std::string& assertion) {
  LOG_INFO("Requesting SSO access token.");
  HttpExchange exchange;
  if (!exchange.isReady()) {
    LOG_ERROR("Couldn't retrieve SSO endpoint from %s . Curl init failed", serverUrl.c_str());
    throw SsoException("Couldn't create access token. Curl init failed");
  }
  // Kept: nothing is percent-encoded, the scope goes out as the local client gave it.
  const std::string form = "grant_type=client_credentials&scope=" + scope +
                           "&client_assertion_type=urn:ietf:params:oauth:client-assertion-type:jwt-bearer"
                           "&client_assertion=" +
                           assertion;
  LOG_DEBUG("Scope: %s", scope.c_str());
  std::string body;
  exchange.set(CURLOPT_TIMEOUT, HTTP_TIMEOUT_SECONDS);
  exchange.set(CURLOPT_URL, tokenEndpoint.c_str());
  exchange.set(CURLOPT_POSTFIELDS, form.c_str());
  exchange.addHeader("Content-Type: application/x-www-form-urlencoded");
  exchange.addHeader("Accept: application/json");
  exchange.setHeaders();
  exchange.collectBody(body);
  if (const char* error = exchange.perform()) {
    LOG_ERROR("curl_easy_perform() failed: %s", error);
    // Kept: the text names the configuration URL, not the token endpoint.
    throw SsoException("Couldn't create access token from " + serverUrl + ". Curl failed, error: " + error);
  }
  const long status = exchange.status();
  LOG_DEBUG("Curl response code: %d", static_cast<int>(status));
  LOG_DEBUG("Curl result: %s", log_secret(body));
  if (!isSuccess(status)) {
    LOG_ERROR("Curl response code: %d", static_cast<int>(status));
    throw SsoException("Couldn't create access token. Curl returned: ");  // Kept: the status is in the log alone.
  }
  return body;
}

}  // namespace velo::ssoService
