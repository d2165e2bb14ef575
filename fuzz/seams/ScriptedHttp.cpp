#include "seams/ScriptedHttp.h"

#include <algorithm>
#include <cstdarg>
#include <utility>

#include "Require.h"

namespace fuzz {
namespace {

// CURLOPT_PROTOCOLS, by its number: newer headers call the name deprecated.
constexpr auto PROTOCOLS_OPTION = static_cast<CURLoption>(CURLOPTTYPE_LONG + 181);
constexpr std::size_t BLANKS = 16384;
constexpr std::size_t MOST_BLANKS = std::size_t{4} * 1024 * 1024;

struct Handle {
  HttpAnswer answer;
  HttpRequest request;
  curl_write_callback write = nullptr;
  void* target = nullptr;
};

std::vector<HttpAnswer> script;
std::vector<HttpRequest> requests;
std::size_t begun = 0;
int open = 0;

Handle& handleOf(CURL* handle) {
  return *static_cast<Handle*>(handle);
}

/// Whether all of it is taken.
bool deliver(Handle& handle, std::string bytes, std::size_t piece) {
  for (std::size_t sent = 0; sent < bytes.size(); sent += piece) {
    const std::size_t count = std::min(piece, bytes.size() - sent);
    if (handle.write(bytes.data() + sent, 1, count, handle.target) != count) {
      return false;
    }
  }
  return true;
}

/// Every request is; the numbers that are left are the request's own.
void requireHttpAlone(HttpRequest& request) {
  const auto protocols = request.numbers.extract(PROTOCOLS_OPTION);
  require(!protocols.empty() && protocols.mapped() == (CURLPROTO_HTTP | CURLPROTO_HTTPS),
          "a request speaks HTTP and HTTPS alone");
}

CURLcode transfer(Handle& handle) {
  bool isTaken = deliver(handle, handle.answer.body, handle.answer.piece);
  for (std::size_t sent = 0; isTaken && handle.answer.isEndless; sent += BLANKS) {
    require(sent < MOST_BLANKS, "an answer without end is not taken");
    isTaken = deliver(handle, std::string(BLANKS, ' '), BLANKS);
  }
  return isTaken ? handle.answer.code : CURLE_WRITE_ERROR;
}

void setPointer(Handle& handle, CURLoption option, void* value) {
  switch (option) {
    case CURLOPT_URL:
      handle.request.url = static_cast<const char*>(value);
      break;
    case CURLOPT_POSTFIELDS:
      handle.request.form = static_cast<const char*>(value);
      break;
    case CURLOPT_HTTPHEADER:
      for (const auto* line = static_cast<const curl_slist*>(value); line != nullptr; line = line->next) {
        handle.request.headers.emplace_back(line->data);
      }
      break;
    case CURLOPT_WRITEDATA:
      handle.target = value;
      break;
    default:
      require(false, "a request sets no other option");
  }
}

}  // namespace

HttpAnswer takeHttpAnswer(Input& input) {
  HttpAnswer answer;
  const std::uint8_t choice = input.byte();
  answer.hasHandle = (choice & 7U) != 7U;
  answer.code = (choice & 7U) == 6U ? CURLE_OPERATION_TIMEDOUT : CURLE_OK;
  answer.status = (choice & 8U) != 0 ? static_cast<long>(input.number()) : 200;
  answer.piece = (choice & 16U) != 0 ? 1U + input.byte() : BLANKS;
  answer.isEndless = choice >= 0xf8U;
  return answer;
}

CURLcode codeOf(const HttpAnswer& answer) {
  return answer.isEndless ? CURLE_WRITE_ERROR : answer.code;
}

void answerHttp(std::vector<HttpAnswer> answers) {
  script = std::move(answers);
  requests.clear();
  begun = 0;
}

const std::vector<HttpRequest>& httpRequests() {
  require(open == 0, "every handle is given back");
  return requests;
}

}  // namespace fuzz

extern "C" {

CURL* __wrap_curl_easy_init();
CURL* __wrap_curl_easy_init() {
  fuzz::require(fuzz::begun < fuzz::script.size(), "no request is made that nothing calls for");
  const fuzz::HttpAnswer& answer = fuzz::script[fuzz::begun];
  ++fuzz::begun;
  if (!answer.hasHandle) {
    return nullptr;
  }
  ++fuzz::open;
  auto* const handle = new fuzz::Handle;
  handle->answer = answer;
  return handle;
}

void __wrap_curl_easy_cleanup(CURL* handle);
void __wrap_curl_easy_cleanup(CURL* handle) {
  --fuzz::open;
  delete static_cast<fuzz::Handle*>(handle);
}

// The enumerations come as the numbers that they are: va_start takes nothing that is promoted.

CURLcode __wrap_curl_easy_setopt(CURL* handle, unsigned number, ...);
CURLcode __wrap_curl_easy_setopt(CURL* handle, unsigned number, ...) {
  const auto option = static_cast<CURLoption>(number);
  va_list arguments;
  va_start(arguments, number);
  if (option < CURLOPTTYPE_OBJECTPOINT) {
    fuzz::handleOf(handle).request.numbers[option] = va_arg(arguments, long);
  } else if (option == CURLOPT_WRITEFUNCTION) {
    fuzz::handleOf(handle).write = va_arg(arguments, curl_write_callback);
  } else {
    fuzz::setPointer(fuzz::handleOf(handle), option, va_arg(arguments, void*));
  }
  va_end(arguments);
  return CURLE_OK;
}

CURLcode __wrap_curl_easy_perform(CURL* handle);
CURLcode __wrap_curl_easy_perform(CURL* handle) {
  fuzz::requireHttpAlone(fuzz::handleOf(handle).request);
  fuzz::requests.push_back(fuzz::handleOf(handle).request);
  return fuzz::transfer(fuzz::handleOf(handle));
}

CURLcode __wrap_curl_easy_getinfo(CURL* handle, unsigned information, ...);
CURLcode __wrap_curl_easy_getinfo(CURL* handle, unsigned information, ...) {
  fuzz::require(information == CURLINFO_RESPONSE_CODE, "only the status is asked for");
  va_list arguments;
  va_start(arguments, information);
  *va_arg(arguments, long*) = fuzz::handleOf(handle).answer.status;
  va_end(arguments);
  return CURLE_OK;
}
}
