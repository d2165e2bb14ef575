#include "util/HttpExchange.h"

#include <new>

namespace velo::ssoService {
namespace {

/// The time limit of a transfer holds for these. libcurl reads files, be they devices or pipes, without a look at it,
/// and says good-bye to FTP and mail servers for two minutes.
constexpr long PROTOCOLS = CURLPROTO_HTTP | CURLPROTO_HTTPS;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
/// The option in the place of this one takes names and came with libcurl 7.85, which devices may not have.
constexpr CURLoption PROTOCOLS_OPTION = CURLOPT_PROTOCOLS;
#pragma GCC diagnostic pop

}  // namespace

HttpExchange::HttpExchange() : handle(curl_easy_init()) {
  if (isReady()) {
    set(PROTOCOLS_OPTION, PROTOCOLS);
  }
}

std::size_t appendToString(char* data, std::size_t size, std::size_t count, void* target) {
  std::string& body = *static_cast<std::string*>(target);
  const std::size_t bytes = size * count;  // libcurl hands over at most CURL_MAX_READ_SIZE bytes at a time
  if (bytes > MAX_RESPONSE_BYTES - body.size()) {
    return 0;
  }
  try {
    body.append(data, bytes);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  return bytes;
}

void HttpExchange::addHeader(const char* line) {
  curl_slist* longer = curl_slist_append(headers.get(), line);
  if (longer == nullptr) {
    throw std::bad_alloc();  // the old list stays and is released as ever
  }
  static_cast<void>(headers.release());
  headers.reset(longer);
}

void HttpExchange::collectBody(std::string& body) {
  body.clear();
  set(CURLOPT_WRITEFUNCTION, &appendToString);
  set(CURLOPT_WRITEDATA, &body);
}

const char* HttpExchange::perform() {
  const CURLcode code = curl_easy_perform(handle.get());
  return code == CURLE_OK ? nullptr : curl_easy_strerror(code);
}

long HttpExchange::status() const {
  long status = 0;
  curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
  return status;
}

bool isSuccess(long status) {
  return status >= 200 && status <= 299;
}

}  // namespace velo::ssoService
