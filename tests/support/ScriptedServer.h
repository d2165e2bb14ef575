#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace test {

/// What a scripted server does on a connection once it has its request. After the last step it ends its side of the
/// connection in order.
struct Step {
  enum Kind {
    SEND,    ///< the bytes at once
    DRIP,    ///< the bytes one by one, each in a segment of its own
    STREAM,  ///< the same without a pause
    PAUSE,   ///< wait
    RESET,   ///< end the connection by a reset
    SILENT   ///< wait until the client leaves or the server is destroyed
  };
  Kind kind;
  std::string bytes = {};
  std::chrono::milliseconds duration = {};
};
using Script = std::vector<Step>;

inline Step send(std::string bytes) {
  return {Step::SEND, std::move(bytes)};
}
inline Step drip(std::string bytes) {
  return {Step::DRIP, std::move(bytes)};
}
inline Step stream(std::string bytes) {
  return {Step::STREAM, std::move(bytes)};
}
inline Step pause(std::chrono::milliseconds duration) {
  return {Step::PAUSE, {}, duration};
}
inline Step reset() {
  return {Step::RESET};
}
inline Step silence() {
  return {Step::SILENT};
}

/// A TCP server on an ephemeral port of 127.0.0.1 that reads a request and then plays a script, whatever it is. Each
/// connection has a thread of its own. The functions may be called at any time.
class ScriptedServer {
 public:
  using IsComplete = std::function<bool(const std::string& received)>;

  /// Requests count as complete when the function says so.
  explicit ScriptedServer(IsComplete isComplete);
  virtual ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  int port() const;

  /// What is done on every connection from now on. Without a script a connection is closed after its request.
  void answer(Script script);

  /// As above, chosen by the request.
  void answer(std::function<Script(const std::string& request)> choose);

  /// All that each client sent, in order of arrival. Waits until the connections have ended, so nothing comes later.
  std::vector<std::string> requests() const;

  /// How many connections have been accepted so far.
  std::size_t connectionCount() const;

 private:
  struct State;
  std::unique_ptr<State> state;
};

}  // namespace test
