#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace test {

struct HttpRequest {
  std::string method;
  std::string target;  ///< path and query as they stood in the request line
  std::string body;
  std::multimap<std::string, std::string> headers;  ///< names in lower case

  /// The value of a header, empty without it.
  std::string header(const std::string& lowerCaseName) const;
};

struct HttpReply {
  int status = 200;
  std::string body = {};
  std::vector<std::pair<std::string, std::string>> headers = {};
};

/// 302 to another URL.
HttpReply redirectTo(const std::string& url);

/// A real HTTP server on an ephemeral port of 127.0.0.1. Handlers run in its threads, the other functions may be called
/// at any time. A path without a handler gives 404. Every connection serves one request.
class HttpServer {
 public:
  using Handler = std::function<HttpReply(const HttpRequest&)>;

  HttpServer();
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  int port() const;

  /// "http://127.0.0.1:port" and the path.
  std::string url(const std::string& path) const;

  /// What answers requests for this path, whatever their method; replaces what did so before.
  void on(const std::string& path, Handler handler);
  void on(const std::string& path, HttpReply reply);

  /// The requests so far, in order; each is here before its reply is made.
  std::vector<HttpRequest> requests() const;

  /// "GET /path?query" of each.
  std::vector<std::string> requestLines() const;

 private:
  struct State;
  std::unique_ptr<State> state;
};

}  // namespace test
