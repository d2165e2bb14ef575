#include "support/RawServer.h"

namespace test {
namespace {

bool isWholeRequest(const std::string& received) {
  static const std::string LENGTH = "Content-Length: ";
  const std::size_t head = received.find("\r\n\r\n");
  if (head == std::string::npos) {
    return false;
  }
  const std::size_t length = received.find(LENGTH);
  const std::size_t body = length < head ? std::stoul(received.substr(length + LENGTH.size())) : 0;
  return received.size() >= head + 4 + body;
}

}  // namespace

RawServer::RawServer() : ScriptedServer(isWholeRequest) {
}

std::string RawServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port()) + path;
}

std::string okReply(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

}  // namespace test
