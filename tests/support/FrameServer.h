#pragma once

#include <string>

#include "support/ScriptedServer.h"

namespace test {

/// Speaks whatever bytes in the place of the service's local API. A request is complete with its frame.
class FrameServer : public ScriptedServer {
 public:
  FrameServer();

  /// Answers every request with a frame that carries this payload.
  void reply(const std::string& payload);
};

}  // namespace test
