#include "json/Texts.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <numeric>
#include <random>
#include <stdexcept>

namespace {

constexpr std::size_t KIB = 1024;
constexpr std::size_t MIB = 1024 * KIB;

std::string fileText(const char* path) {
  std::ifstream file(path);
  if (!file) {
    throw std::runtime_error(std::string("no file ") + path);
  }
  return std::string(std::istreambuf_iterator<char>(file), {});
}

/// The same letters at each call.
std::string letters(std::size_t count) {
  constexpr char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::mt19937 random(count);
  std::string text(count, '\0');
  std::generate(text.begin(), text.end(), [&] { return ALPHABET[random() % 64]; });
  return text;
}

std::string formatted(const char* format, ...) __attribute__((format(printf, 1, 2)));

std::string formatted(const char* format, ...) {
  std::array<char, 512> text{};
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  return std::string(text.data(), static_cast<std::size_t>(length));
}

/// Elements, each made from its number, parted by commas, until there are as many bytes.
template <typename Make>
std::string listOf(std::size_t size, Make make) {
  std::string list;
  for (unsigned number = 0; list.size() < size; ++number) {
    list += (number == 0 ? "" : ",") + make(number);
  }
  return list;
}

/// A compact text without escaped quotes, with line ends and indentation.
std::string indented(const std::string& compact) {
  std::string text;
  std::size_t depth = 0;
  bool quoted = false;
  for (const char c : compact) {
    quoted = quoted != (c == '"');
    if (!quoted && (c == ']' || c == '}')) {
      text.append("\n").append(2 * --depth, ' ');
    }
    text += c;
    if (!quoted && (c == '[' || c == '{' || c == ',')) {
      depth += c == ',' ? 0 : 1;
      text.append("\n").append(2 * depth, ' ');
    } else if (!quoted && c == ':') {
      text += ' ';
    }
  }
  return text;
}

std::string integers(std::size_t size) {
  std::mt19937 random;
  return "[" + listOf(size, [&](unsigned) { return std::to_string(static_cast<int>(random() % 2000000) - 1000000); }) +
         "]";
}

std::string decimals(std::size_t size) {
  std::mt19937 random;
  return "[" +
         listOf(size,
                [&](unsigned number) {
                  const double value = static_cast<double>(random()) / 65536;
                  return number % 8 == 0 ? formatted("%.4e", value) : formatted("%.4f", value);
                }) +
         "]";
}

std::string nested(const std::string& opening, std::size_t depth, char closing) {
  std::string text;
  for (std::size_t level = 0; level < depth; ++level) {
    text += opening;
  }
  return text + std::string(depth, closing);
}

std::string nestedArrays(std::size_t depth) {
  return nested("[", depth, ']');
}

std::string nestedObjects(std::size_t depth) {
  return nested("{\"a\":", depth - 1, '}').insert(5 * (depth - 1), "{}");
}

/// As long as the texts of depth 1,000,000, and one entry for this library as they are.
std::string shallow(const std::string& value) {
  return "[[" + listOf(2 * MIB, [&](unsigned) { return value; }) + "]]";
}

std::string shuffledKeys(std::size_t count) {
  std::vector<unsigned> order(count);
  std::iota(order.begin(), order.end(), 0U);
  std::shuffle(order.begin(), order.end(), std::mt19937());
  std::string text = "{";
  for (const unsigned number : order) {
    text += formatted("\"key-%06u\":%u,", number, number);
  }
  text.back() = '}';
  return text;
}

/// Devices as a management system lists them: all types, three levels, escapes, bytes beyond ASCII.
std::string mixed(std::size_t size) {
  return "[" +
         listOf(size,
                [](unsigned number) {
                  return formatted(
                      "{\"id\":\"device-%06u\",\"enabled\":%s,\"seen\":%u,\"load\":%.3f,\"parent\":null,"
                      "\"owner\":{\"name\":\"J\xC3\xB6rg Example\",\"address\":{\"street\":\"Long Street "
                      "%u\",\"city\":\"Example "
                      "Town\"}},\"groups\":[\"all\",\"floor-%u\",\"new\"],\"levels\":[%u,%u,%u],"
                      "\"note\":\"says \\\"hello\\\"\\nevery morning, and nothing else for the rest of the day\"}",
                      number, number % 3 == 0 ? "false" : "true", 1700000000 + number, number / 1000.0, number,
                      number % 40, number % 7, number % 11, number % 13);
                }) +
         "]";
}

}  // namespace

std::string tokenReply(std::size_t size) {
  const std::string head = "{\"access_token\":\"eyJhbGciOiJSUzI1NiJ9.";
  const std::string tail = "\",\"token_type\":\"Bearer\",\"expires_in\":3600,\"scope\":\"openid profile device\"}";
  std::string token = letters(size - head.size() - tail.size());
  token[token.size() * 2 / 3] = '.';
  return head + token + tail;
}

std::string discoveryDocument(std::size_t size) {
  std::string text =
      R"({"issuer":"https://idp.example","authorization_endpoint":"https://idp.example/oauth2/authorize",)"
      R"("token_endpoint":"https://idp.example/oauth2/token","userinfo_endpoint":"https://idp.example/userinfo",)"
      R"("jwks_uri":"https://idp.example/.well-known/keys","revocation_endpoint":"https://idp.example/oauth2/revoke",)"
      R"("introspection_endpoint":"https://idp.example/oauth2/introspect","require_request_uri_registration":false,)"
      R"("response_types_supported":["code","id_token","code id_token","code token","none"],)"
      R"("response_modes_supported":["query","fragment","form_post"],"claims_parameter_supported":true,)"
      R"("grant_types_supported":["authorization_code","client_credentials","refresh_token"],)"
      R"("subject_types_supported":["public","pairwise"],"request_parameter_supported":true,)"
      R"("id_token_signing_alg_values_supported":["RS256","RS384","RS512","ES256","PS256"],)"
      R"("token_endpoint_auth_methods_supported":["private_key_jwt","client_secret_basic","tls_client_auth"],)"
      R"("scopes_supported":["openid","profile","email","address","phone","offline_access","device"],)"
      R"("code_challenge_methods_supported":["S256"],"max_age_supported":86400,)"
      R"("mtls_endpoint_aliases":{"token_endpoint":"https://mtls.idp.example/oauth2/token"},)"
      R"("claims_supported":["sub","iss","aud","exp","iat","auth_time","acr","amr","name","given_name","locale",)";
  text += listOf(size - text.size() - 2,
                 [](unsigned number) { return formatted("\"https://idp.example/claims/claim_%u\"", number); });
  return text + "]}";
}

std::string ascendingKeys(std::size_t count) {
  std::string text = "{";
  for (std::size_t number = 0; number < count; ++number) {
    text += formatted("\"key-%06zu\":%zu,", number, number);
  }
  text.back() = '}';
  return text;
}

const std::vector<Text>& texts() {
  static const std::vector<Text> ALL = {
      {"sample configuration", [] { return fileText(SAMPLE_CONFIGURATION); }, false},
      {"packaged configuration", [] { return fileText(PACKAGED_CONFIGURATION); }, false},
      {"token reply 1 KiB", [] { return tokenReply(KIB); }, false},
      {"token reply 8 KiB", [] { return tokenReply(8 * KIB); }, false},
      {"discovery 4 KiB", [] { return discoveryDocument(4 * KIB); }, false},
      {"discovery 4 KiB indented", [] { return indented(discoveryDocument(4 * KIB)); }, false},
      {"discovery 64 KiB", [] { return discoveryDocument(64 * KIB); }, false},
      {"discovery 64 KiB indented", [] { return indented(discoveryDocument(64 * KIB)); }, false},
      {"request", [] { return std::string(R"({"request":"token","scope":"device"})"); }, false},
      {"integers 1 MiB", [] { return integers(MIB); }, false},
      {"decimals 1 MiB", [] { return decimals(MIB); }, false},
      {"string 1 MiB", [] { return "{\"text\":\"" + letters(MIB) + "\"}"; }, false},
      {"arrays depth 10", [] { return shallow(nestedArrays(8)); }, false},
      {"arrays depth 1000", [] { return nestedArrays(1000); }, false},
      {"arrays depth 100000", [] { return nestedArrays(100000); }, true},
      {"arrays depth 1000000", [] { return nestedArrays(1000000); }, true},
      {"objects depth 10", [] { return shallow(nestedObjects(8)); }, false},
      {"objects depth 1000", [] { return nestedObjects(1000); }, false},
      {"objects depth 100000", [] { return nestedObjects(100000); }, true},
      {"objects depth 1000000", [] { return nestedObjects(1000000); }, true},
      {"ascending keys 1000", [] { return ascendingKeys(1000); }, false},
      {"ascending keys 10000", [] { return ascendingKeys(10000); }, false},
      {"ascending keys 50000", [] { return ascendingKeys(50000); }, false},
      {"shuffled keys 1000", [] { return shuffledKeys(1000); }, false},
      {"shuffled keys 10000", [] { return shuffledKeys(10000); }, false},
      {"shuffled keys 50000", [] { return shuffledKeys(50000); }, false},
      {"mixed 64 KiB", [] { return mixed(64 * KIB); }, false},
      {"mixed 1 MiB", [] { return mixed(MIB); }, false},
      {"mixed 4 MiB", [] { return mixed(4 * MIB); }, false},
  };
  return ALL;
}
