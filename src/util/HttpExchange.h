#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <memory>
#include <string>

namespace velo::ssoService {

/// The longest response body that is kept. A longer one ends the transfer with CURLE_WRITE_ERROR: no reply that the
/// service can use comes near it, and the device's memory is not the other side's to fill.
constexpr std::size_t MAX_RESPONSE_BYTES = std::size_t{2} * 1024 * 1024;

/// libcurl write callback: appends size x count bytes to the std::string given as write data and returns size x count;
/// less, which ends the transfer, when the body is too long or memory runs out. Never throws.
std::size_t appendToString(char* data, std::size_t size, std::size_t count, void* target);

/// libcurl's process-wide state: curl_global_init with all features, and curl_global_cleanup.
class HttpLibrary {
 public:
  HttpLibrary() { curl_global_init(CURL_GLOBAL_ALL); }
  ~HttpLibrary() { curl_global_cleanup(); }
  HttpLibrary(const HttpLibrary&) = delete;
  HttpLibrary& operator=(const HttpLibrary&) = delete;
};

/// One HTTP request on a libcurl easy handle of its own, released with the object. For one thread at a time;
/// curl_global_init has to have run.
class HttpExchange {
 public:
  /// isReady tells whether curl_easy_init gave a handle; nothing else may be called without one.
  HttpExchange();
  bool isReady() const { return handle != nullptr; }

  /// curl_easy_setopt. Long options take a long; texts are copied by libcurl, except CURLOPT_POSTFIELDS, whose text has
  /// to outlive perform.
  template <typename T>
  void set(CURLoption option, T value) {
    curl_easy_setopt(handle.get(), option, value);
  }

  /// CURLOPT_HTTPHEADER from the lines given to addHeader.
  void addHeader(const char* line);
  void setHeaders() { set(CURLOPT_HTTPHEADER, headers.get()); }

  /// CURLOPT_WRITEFUNCTION and CURLOPT_WRITEDATA: the body goes to this text, which is emptied first and has to outlive
  /// perform.
  void collectBody(std::string& body);

  /// Runs the transfer. Returns the text of curl_easy_strerror, or null when it succeeded.
  const char* perform();

  /// CURLINFO_RESPONSE_CODE of the last response.
  long status() const;

 private:
  struct HandleDeleter {
    void operator()(CURL* owned) const { curl_easy_cleanup(owned); }
  };
  struct HeaderDeleter {
    void operator()(curl_slist* owned) const { curl_slist_free_all(owned); }
  };

  std::unique_ptr<curl_slist, HeaderDeleter> headers;  // outlives the handle that refers to it
  std::unique_ptr<CURL, HandleDeleter> handle;
};

/// Whether a status stands for success: 200 to 299.
bool isSuccess(long status);

}  // namespace velo::ssoService
