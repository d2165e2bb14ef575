#include "support/HttpServer.h"

// Debian's library was built with it, and its classes have more members then.
#define CPPHTTPLIB_OPENSSL_SUPPORT
#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "support/Await.h"

namespace test {
namespace {

HttpRequest recorded(const httplib::Request& request) {
  HttpRequest copy{request.method, request.target, request.body, {}};
  for (const auto& [name, value] : request.headers) {
    std::string lowerCase = name;
    std::transform(lowerCase.begin(), lowerCase.end(), lowerCase.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    copy.headers.emplace(lowerCase, value);
  }
  return copy;
}

}  // namespace

std::string HttpRequest::header(const std::string& lowerCaseName) const {
  const auto found = headers.find(lowerCaseName);
  return found == headers.end() ? "" : found->second;
}

HttpReply redirectTo(const std::string& url) {
  return {302, "moved", {{"Location", url}}};
}

struct HttpServer::State {
  httplib::Server server;
  std::thread thread;
  int port = 0;
  mutable std::mutex lock;
  std::map<std::string, Handler> handlers;
  std::vector<HttpRequest> requests;

  Handler record(const httplib::Request& request) {
    const std::lock_guard<std::mutex> guard(lock);
    requests.push_back(recorded(request));
    const auto found = handlers.find(request.path);
    return found == handlers.end() ? nullptr : found->second;
  }

  void answer(const httplib::Request& request, httplib::Response& response) {
    const Handler handler = record(request);
    const HttpReply reply = handler ? handler(recorded(request)) : HttpReply{404, "not found"};
    response.status = reply.status;
    for (const auto& [name, value] : reply.headers) {
      response.set_header(name, value);
    }
    response.set_content(reply.body, "application/json");
  }
};

HttpServer::HttpServer() : state(std::make_unique<State>()) {
  httplib::Server& server = state->server;
  const auto answer = [this](const httplib::Request& request, httplib::Response& response) {
    state->answer(request, response);
  };
  server.Get(".*", answer).Post(".*", answer);
  server.set_keep_alive_max_count(1);
  server.new_task_queue = [] { return new httplib::ThreadPool(2); };  // the server deletes it
  state->port = server.bind_to_any_port("127.0.0.1");
  if (state->port <= 0) {
    throw std::runtime_error("cannot bind an HTTP server");
  }
  state->thread = std::thread([&server] { server.listen_after_bind(); });
  await([&server] { return server.is_running(); });
}

HttpServer::~HttpServer() {
  state->server.stop();
  state->thread.join();
}

int HttpServer::port() const {
  return state->port;
}

std::string HttpServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(state->port) + path;
}

void HttpServer::on(const std::string& path, Handler handler) {
  const std::lock_guard<std::mutex> guard(state->lock);
  state->handlers[path] = std::move(handler);
}

void HttpServer::on(const std::string& path, HttpReply reply) {
  on(path, [reply = std::move(reply)](const HttpRequest&) { return reply; });
}

std::vector<HttpRequest> HttpServer::requests() const {
  const std::lock_guard<std::mutex> guard(state->lock);
  return state->requests;
}

std::vector<std::string> HttpServer::requestLines() const {
  std::vector<std::string> lines;
  for (const HttpRequest& request : requests()) {
    lines.push_back(request.method + " " + request.target);
  }
  return lines;
}

}  // namespace test
