#pragma once

#include <string>

#include "support/ScriptedServer.h"

namespace test {

/// Speaks whatever bytes in the place of an HTTP server. A request is complete with its body (by Content-Length).
class RawServer : public ScriptedServer {
 public:
  RawServer();

  /// "http://127.0.0.1:port" and the path.
  std::string url(const std::string& path) const;
};

/// A whole HTTP reply with status 200 and this body.
std::string okReply(const std::string& body);

}  // namespace test
