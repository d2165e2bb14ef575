#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "Input.h"

namespace fuzz {

// Stands in the place of libcurl's transfers, by calls that the linker wraps: no request reaches a network.

/// How one transfer goes.
struct HttpAnswer {
  bool hasHandle = true;  ///< without, curl_easy_init gives none
  CURLcode code = CURLE_OK;
  long status = 200;
  std::string body;
  std::size_t piece = 16384;  ///< the body comes in pieces of so many bytes
  bool isEndless = false;     ///< blanks follow it until they are not taken any more
};

/// An answer made from an input. Its body is the caller's to set.
HttpAnswer takeHttpAnswer(Input& input);

/// How the transfer ends.
CURLcode codeOf(const HttpAnswer& answer);

/// What was asked for. A transfer whose body is not taken to its end fails with CURLE_WRITE_ERROR.
struct HttpRequest {
  std::string url;
  std::string form;  ///< of a POST
  std::vector<std::string> headers;
  std::map<CURLoption, long> numbers;
};

/// The answers to the next transfers, in order; one too many ends the process. Forgets the requests so far.
void answerHttp(std::vector<HttpAnswer> answers);

/// The requests since then. Requires that every handle has been given back.
const std::vector<HttpRequest>& httpRequests();

}  // namespace fuzz
