#include "support/DecodedToken.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <stdexcept>

#include "Base64.h"

namespace test {
namespace {

std::string decodeBase64Url(std::string text) {
  std::replace(text.begin(), text.end(), '-', '+');
  std::replace(text.begin(), text.end(), '_', '/');
  return velo::ssoService::base64Decode(text);
}

bool isBase64Url(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char letter) {
    return std::isalnum(letter) != 0 || letter == '-' || letter == '_';
  });
}

}  // namespace

DecodedToken::DecodedToken(const std::string& compact) {
  const std::size_t first = compact.find('.');
  const std::size_t last = compact.rfind('.');
  if (first == std::string::npos || first == last) {
    throw std::runtime_error("not a compact token: " + compact);
  }
  const std::string parts[] = {compact.substr(0, first), compact.substr(first + 1, last - first - 1),
                               compact.substr(last + 1)};
  if (!std::all_of(std::begin(parts), std::end(parts), isBase64Url)) {
    throw std::runtime_error("not base64url: " + compact);
  }
  header = decodeBase64Url(parts[0]);
  payload = decodeBase64Url(parts[1]);
  signature = decodeBase64Url(parts[2]);
  signedText = compact.substr(0, last);
}

}  // namespace test
