#pragma once

#include <atomic>
#include <chrono>
#include <string>

#include "apiProviders/SsoApiProvider.h"
#include "util/Descriptor.h"
#include "util/Frames.h"

namespace velo::ssoService {

class DiscoverySSOManager;

/// Serves local programs on a port of 127.0.0.1: one connection at a time, one request frame and one reply frame each
/// (a length of four bytes, big-endian, and JSON text). Everything but stop belongs to the thread that calls serve. No
/// failure ends serve.
class SsoApiSocketProvider : public SsoApiProvider {
 public:
  /// Opens nothing yet. The manager stays its owner's and has to outlive this object. A client that takes longer than
  /// its time to send its request, or to take its reply, loses its connection; zero: it has all the time there is.
  SsoApiSocketProvider(DiscoverySSOManager* requestManager, int listeningPort,
                       std::chrono::milliseconds timeOfClient = std::chrono::milliseconds::zero());
  ~SsoApiSocketProvider() override = default;

  /// Opens the port, trying again every 30 seconds, then serves connections until stop is seen.
  void serve() override;

  /// Takes effect between two connections; a blocked accept is not woken.
  void stop() override { stopFlag = true; }

  /// Opens, binds and listens; false, with the failure in the log, when that does not work out.
  bool setupServer();

  void acceptLoop();

 private:
  void serveClient();

  // Framing: SsoApiSocketProvider.cpp
  Deadline clientDeadline() const;
  std::string readRequest();
  void sendReply(const std::string& text);
  void discardUnreadInput();

  // Requests and replies: SsoApiRequests.cpp
  void handleRequest(const std::string& request);
  void sendTokenReply(const std::string& scope);
  void sendDiscoveryDataReply();
  void sendCertificateIdReply();
  void sendResetReply();
  void sendErrorReply(const std::string& message);

  DiscoverySSOManager* manager;
  int port;
  std::chrono::milliseconds clientTimeout;  // for a request and for a reply; zero: none
  Descriptor serverSocket;
  Descriptor clientSocket;  // open while a client is served
  std::atomic<bool> stopFlag{false};
  bool frameRefused = false;  // the client's frame is too large: more of it is on its way
};

}  // namespace velo::ssoService
