#include "support/FrameServer.h"

#include "support/KeyService.h"  // its frames are the same

namespace test {
namespace {

/// Whether the announced length, which sorts as its bytes do, is not more than what is there.
bool isWholeFrame(const std::string& received) {
  constexpr std::size_t PREFIX_BYTES = 4;
  return received.size() >= PREFIX_BYTES &&
         received.compare(0, PREFIX_BYTES, lengthPrefix(received.size() - PREFIX_BYTES)) <= 0;
}

}  // namespace

FrameServer::FrameServer() : ScriptedServer(isWholeFrame) {
}

void FrameServer::reply(const std::string& payload) {
  answer({send(frame(payload))});
}

}  // namespace test
