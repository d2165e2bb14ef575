// The input is the identity provider's URL and a sequence of requests for tokens at times of its own choosing, with the
// answers to them: the OpenID configuration and the token endpoint's. Tokens, failures and what is sent are compared
// with the rules; every signed assertion is looked into.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <string>

#include "Base64.h"
#include "DeviceIdentity.h"
#include "Failure.h"
#include "Input.h"
#include "LiteralDocument.h"
#include "LiteralJson.h"
#include "LiteralUtf8.h"
#include "Require.h"
#include "SsoClient.h"
#include "seams/CapturedLog.h"
#include "seams/ScriptedClock.h"
#include "seams/ScriptedHttp.h"
#include "support/ScriptedProvider.h"

namespace {

using fuzz::DocumentModel;
using fuzz::Failure;
using fuzz::HttpAnswer;
using fuzz::Input;
using fuzz::outcomeOf;
using fuzz::require;
using fuzz::requireEqual;
using json::jtype;
using velo::ssoService::SsoClient;

constexpr int MOST_REQUESTS = 6;
constexpr int MARGIN_SECONDS = 20;
constexpr int ASSERTION_SECONDS = 300;

// The rules.

struct Token {
  std::string text;
  std::int32_t expiresAt = 0;
};

/// A client as the rules have it.
struct Client {
  std::string url;
  std::string endpoint;
  std::map<std::string, Token> tokens;
  std::int64_t now = 0;
  std::size_t requests = 0;  ///< that the last call made
};

/// The difference of two times of 32 bits.
bool isUsable(const Token& token, std::int64_t now) {
  const std::int64_t left = std::int64_t{token.expiresAt} - now;
  return !token.text.empty() && static_cast<std::int32_t>(left) >= MARGIN_SECONDS;
}

/// The leading digits of a number's text. Throws Failure when they are too large for an int.
int leadingNumber(const std::string& text) {
  const long long value = std::strtoll(text.c_str(), nullptr, 10);
  if (value < std::numeric_limits<int>::min() || value > std::numeric_limits<int>::max()) {
    throw Failure{"stoi"};
  }
  return static_cast<int>(value);
}

Token expectedToken(const std::string& body, std::int64_t now) {
  Token token;
  try {
    const DocumentModel answer = test::modelParse(body.c_str());
    if (fuzz::hasMember(answer, "access_token", jtype::jstring)) {
      token.text = fuzz::memberText(answer, "access_token");
    }
    if (fuzz::hasMember(answer, "expires_in", jtype::jnumber)) {
      token.expiresAt = static_cast<std::int32_t>(now + leadingNumber(fuzz::memberText(answer, "expires_in")));
    }
  } catch (const std::exception&) {
    return {};
  } catch (const Failure&) {
    return {};
  }
  return token;
}

std::string expectedConfiguration(const HttpAnswer& answer, const std::string& url) {
  const std::string failure = "Couldn't retrieve SSO token endpoint from " + url;
  if (!answer.hasHandle) {
    throw Failure{failure + ". Curl init failed"};
  }
  if (fuzz::codeOf(answer) != CURLE_OK) {
    throw Failure{"Couldn't retrieve SSO endpoint from " + url +
                  ". Error: " + curl_easy_strerror(fuzz::codeOf(answer))};
  }
  if (answer.status < 200 || answer.status > 299) {
    throw Failure{failure + ". Return code: " + std::to_string(answer.status)};
  }
  return answer.body;
}

std::string expectedEndpoint(const HttpAnswer& answer, Client& client) {
  const std::string& url = client.url;
  if (url.find("http") == std::string::npos) {
    throw Failure{"Invalid sso URL: " + url};
  }
  client.requests += answer.hasHandle ? 1 : 0;
  const std::string body = expectedConfiguration(answer, url);
  const std::string failure = "Couldn't retrieve SSO token endpoint from " + url;
  std::string endpoint;
  try {
    const DocumentModel configuration = test::modelParse(body.c_str());
    const std::string* const value = fuzz::findMember(configuration, "token_endpoint");
    if (value == nullptr) {
      throw json::invalid_key("token_endpoint");
    }
    endpoint = fuzz::literalType(*value) == jtype::jstring ? fuzz::literalText(*value) : "";
  } catch (const std::exception&) {
    throw Failure{failure + ". Received invalid json " + body};
  }
  if (endpoint.empty()) {
    throw Failure{failure + ". Missing endpoint "};
  }
  return endpoint;
}

std::string expectedAnswer(const HttpAnswer& answer, Client& client) {
  if (!answer.hasHandle) {
    throw Failure{"Couldn't create access token. Curl init failed"};
  }
  ++client.requests;
  if (fuzz::codeOf(answer) != CURLE_OK) {
    throw Failure{"Couldn't create access token from " + client.url +
                  ". Curl failed, error: " + curl_easy_strerror(fuzz::codeOf(answer))};
  }
  if (answer.status < 200 || answer.status > 299) {
    throw Failure{"Couldn't create access token. Curl returned: "};
  }
  return answer.body;
}

/// The token that a call gives. Throws Failure.
std::string expectedCall(Client& client, const std::string& scope, const HttpAnswer& configuration,
                         const HttpAnswer& answer) {
  client.requests = 0;
  if (isUsable(client.tokens[scope], client.now)) {
    return client.tokens[scope].text;
  }
  if (client.endpoint.empty()) {
    client.endpoint = expectedEndpoint(configuration, client);
  }
  Token& token = client.tokens[scope];
  token = {};
  if (!fuzz::isUtf8(client.endpoint)) {
    throw Failure{"Error creating SSO authentication id token: failed to set a claim"};
  }
  token = expectedToken(expectedAnswer(answer, client), client.now);
  if (!isUsable(token, client.now)) {
    throw Failure{"Couldn't create valid access token"};
  }
  return token.text;
}

// What is sent.

/// A part of a signed assertion, decoded.
std::string takePart(std::string& assertion) {
  const std::size_t end = std::min(assertion.find('.'), assertion.size());
  std::string part = assertion.substr(0, end);
  assertion.erase(0, std::min(end + 1, assertion.size()));
  for (char& c : part) {
    c = c == '-' ? '+' : c == '_' ? '/' : c;
  }
  return velo::ssoService::base64Decode(part);
}

/// A claim, as text or as the digits of a number.
std::string claimIn(const fuzz::LiteralJson& claims, const std::string& name) {
  for (std::size_t i = 0; i + 1 < claims.parts.size(); i += 2) {
    if (claims.parts[i].plain == name) {
      return claims.parts[i + 1].plain.value_or(std::string(claims.parts[i + 1].text));
    }
  }
  return "";
}

void checkAssertion(std::string assertion, const Client& client) {
  static_cast<void>(takePart(assertion));
  const std::string payload = takePart(assertion);
  require(!takePart(assertion).empty() && assertion.empty(), "an assertion has three parts");
  fuzz::LiteralJson claims;
  require(fuzz::readLiterally(payload, claims) == fuzz::Verdict::VALID, "the claims are valid JSON");
  requireEqual(claimIn(claims, "aud"), client.endpoint, "the assertion is for the token endpoint");
  requireEqual(claimIn(claims, "sub"), "device-0001", "the assertion is about the device");
  requireEqual(claimIn(claims, "iat"), std::to_string(client.now), "the assertion is of now");
  requireEqual(claimIn(claims, "exp"), std::to_string(client.now + ASSERTION_SECONDS), "the assertion is short-lived");
}

void checkTokenRequest(const fuzz::HttpRequest& request, const Client& client, const std::string& scope) {
  const std::string head = "grant_type=client_credentials&scope=" + scope;
  const std::string middle =
      "&client_assertion_type=urn:ietf:params:oauth:client-assertion-type:jwt-bearer&client_assertion=";
  requireEqual(request.url, client.endpoint, "a token is asked for at the endpoint");
  require(request.numbers == std::map<CURLoption, long>{{CURLOPT_TIMEOUT, 30}}, "a token request has a time limit");
  require(request.headers ==
              std::vector<std::string>{"Content-Type: application/x-www-form-urlencoded", "Accept: application/json"},
          "a token request has its headers");
  if (scope.find('\0') != std::string::npos) {
    requireEqual(request.form, head.c_str(), "the form ends at a NUL");
    return;
  }
  requireEqual(request.form.substr(0, head.size() + middle.size()), head + middle, "the form carries the scope");
  checkAssertion(request.form.substr(head.size() + middle.size()), client);
}

void checkConfigurationRequest(const fuzz::HttpRequest& request, const Client& client) {
  requireEqual(request.url, client.url.c_str(), "the configuration is asked for at its URL");
  const std::map<CURLoption, long> numbers = {{CURLOPT_TIMEOUT, 30},       {CURLOPT_HTTPGET, 1},
                                              {CURLOPT_FOLLOWLOCATION, 1}, {CURLOPT_IPRESOLVE, CURL_IPRESOLVE_V4},
                                              {CURLOPT_NOPROGRESS, 1},     {CURLOPT_MAXREDIRS, 50},
                                              {CURLOPT_TCP_KEEPALIVE, 1}};
  require(request.numbers == numbers && request.form.empty() && request.headers.empty(),
          "the configuration request is the one wanted");
}

void checkRequests(const Client& client, const std::string& scope) {
  require(fuzz::httpRequests().size() == client.requests, "no more is asked than has to be");
  for (const fuzz::HttpRequest& request : fuzz::httpRequests()) {
    if (request.form.empty()) {
      checkConfigurationRequest(request, client);
    } else {
      checkTokenRequest(request, client, scope);
    }
  }
}

HttpAnswer takeAnswer(Input& input) {
  HttpAnswer answer = fuzz::takeHttpAnswer(input);
  answer.body = input.piece();
  return answer;
}

/// Later, or any time.
std::int64_t takeTime(Input& input, std::int64_t now) {
  return input.flag() ? static_cast<std::int64_t>(input.number()) * 65536 + static_cast<std::int64_t>(input.number())
                      : now + static_cast<std::int64_t>(input.number());
}

void request(SsoClient& real, Client& client, Input& input) {
  client.now = takeTime(input, client.now);
  fuzz::setClock(client.now);
  const std::string scope = input.piece();
  const HttpAnswer configuration = client.endpoint.empty() ? takeAnswer(input) : HttpAnswer();
  const HttpAnswer answer = takeAnswer(input);
  fuzz::answerHttp(client.endpoint.empty() ? std::vector<HttpAnswer>{configuration, answer}
                                           : std::vector<HttpAnswer>{answer});
  const std::string outcome = outcomeOf([&] { return real.getAccessToken(scope); });
  std::string expected;
  try {
    expected = expectedCall(client, scope, configuration, answer);
  } catch (const Failure& failure) {
    expected = ("threw " + failure.text).c_str();
  }
  requireEqual(outcome, expected, "a call gives the token, or the reason, that the rules say");
  require(real.isConfigured() == !client.endpoint.empty(), "the endpoint is known once it was found");
  checkRequests(client, scope);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static test::ScriptedProvider provider(fuzz::signingIdentity());
  provider.calls.clear();
  Input input(data, size);
  Client client;
  client.url = input.piece();
  if (client.url.empty()) {
    return 0;
  }
  SsoClient real(client.url, &provider);
  for (int count = 0; count < MOST_REQUESTS && !input.isEmpty(); ++count) {
    request(real, client, input);
    fuzz::takeLog();
  }
  return 0;
}
