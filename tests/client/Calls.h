#pragma once

#include <chrono>
#include <string>

#include "client/Outcome.h"

namespace test {

enum class Request { TOKEN, DATA, CERTIFICATE_ID, RESET };

constexpr Request ALL_REQUESTS[] = {Request::TOKEN, Request::DATA, Request::CERTIFICATE_ID, Request::RESET};

/// A limit that is not to be reached, and one that is; how long after it a call has returned on a busy machine.
constexpr std::chrono::milliseconds LONG_LIMIT{20000};
constexpr std::chrono::milliseconds SHORT_LIMIT{400};
constexpr std::chrono::milliseconds MARGIN{10000};

/// Makes the request through the library.
inline Outcome call(Request request, int port, std::chrono::milliseconds limit = LONG_LIMIT) {
  const int timeout = static_cast<int>(limit.count());
  return outcomeOf([&](char** text) {
    switch (request) {
      case Request::TOKEN:
        return ssoclient_get_token(port, "scope", timeout, text);
      case Request::DATA:
        return ssoclient_get_discovery_data(port, timeout, text);
      case Request::CERTIFICATE_ID:
        return ssoclient_get_certificate_id(port, timeout, text);
      case Request::RESET:
        return ssoclient_reset(port, timeout, text);
    }
    return SSOCLIENT_INVALID_ARGUMENT;
  });
}

/// The payload of a reply that such a request succeeds with.
inline std::string goodReply(Request request) {
  switch (request) {
    case Request::TOKEN:
      return R"({"status":"ok","token":"t"})";
    case Request::DATA:
      return R"({"status":"ok","discovery_data":{"a":1}})";
    case Request::CERTIFICATE_ID:
      return R"({"status":"ok","certificate_id":"i"})";
    case Request::RESET:
      return R"({"status":"ok"})";
  }
  return "";
}

/// What the request then gives.
inline Outcome goodOutcome(Request request) {
  switch (request) {
    case Request::TOKEN:
      return ok("t");
    case Request::DATA:
      return ok(R"({"a":1})");
    case Request::CERTIFICATE_ID:
      return ok("i");
    case Request::RESET:
      return only(SSOCLIENT_OK);
  }
  return only(SSOCLIENT_INVALID_ARGUMENT);
}

inline std::ostream& operator<<(std::ostream& stream, Request request) {
  static constexpr const char* NAMES[] = {"token", "data", "certificate_id", "reset"};
  return stream << NAMES[static_cast<int>(request)];
}

/// How long an action takes.
template <typename Action>
std::chrono::milliseconds durationOf(const Action& action) {
  const auto begin = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
}

}  // namespace test
