#include "apiProviders/SsoApiSocketProvider.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>

#include "logging/logging.h"
#include "util/Clock.h"
#include "util/Loopback.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "apiProviders/SsoApiSocketProvider";
constexpr std::chrono::seconds SETUP_RETRY_PAUSE{30};
constexpr int BACKLOG = 5;

double inSeconds(std::chrono::milliseconds time) {
  return std::chrono::duration<double>(time).count();
}

}  // namespace

SsoApiSocketProvider::SsoApiSocketProvider(DiscoverySSOManager* requestManager, int listeningPort,
                                           std::chrono::milliseconds timeOfClient)
    : manager(requestManager), port(listeningPort), clientTimeout(timeOfClient) {
}

void SsoApiSocketProvider::serve() {
  while (!stopFlag && !setupServer()) {
    pauseThread(SETUP_RETRY_PAUSE);
  }
  acceptLoop();
}

bool SsoApiSocketProvider::setupServer() {
  serverSocket.reset();
  serverSocket.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!serverSocket.isOpen()) {
    LOG_ERROR("SSO API socket creation failed");
    return false;
  }
  LOG_INFO("SSO API Socket successfully created");
  const int reuse = 1;
  if (::setsockopt(serverSocket.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0) {
    std::array<char, 128> reason{};
    LOG_ERROR("SSO API setsockopt failed %s", ::strerror_r(errno, reason.data(), reason.size()));
    return false;
  }
  const sockaddr_in address = loopbackAddress(port);
  if (::bind(serverSocket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    LOG_ERROR("SSO API socket bind failed ");
    return false;
  }
  LOG_INFO("SSO API Socket successfully binded");  // Kept: as it is spelt.
  if (::listen(serverSocket.get(), BACKLOG) != 0) {
    LOG_ERROR("SSO API listen failed");
    return false;
  }
  LOG_INFO("SSO API Server listening");
  return true;
}

void SsoApiSocketProvider::acceptLoop() {
  while (!stopFlag) {
    clientSocket.reset(::accept4(serverSocket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!clientSocket.isOpen()) {
      LOG_ERROR("SSO API server accept failed");
      setupServer();  // Kept: without a pause, and whatever comes of it, so a lasting cause fills the log.
      continue;
    }
    LOG_INFO("SSO API server accepted the client");
    try {
      serveClient();
    } catch (const std::exception& reason) {
      // Memory ran out somewhere on the way: it costs this client its reply, not the others their service.
      LOG_ERROR("SSO API request abandoned: %s", reason.what());
    }
    clientSocket.reset();
  }
}

void SsoApiSocketProvider::serveClient() {
  const std::string request = readRequest();
  LOG_INFO("SSO API Client request %s", request.c_str());
  handleRequest(request);
  discardUnreadInput();
}

/// Until when the client has to have done what it is to do now.
Deadline SsoApiSocketProvider::clientDeadline() const {
  return clientTimeout.count() > 0 ? Deadline(std::chrono::steady_clock::now() + clientTimeout) : std::nullopt;
}

/// The payload of the client's frame; empty after any failure.
std::string SsoApiSocketProvider::readRequest() {
  FrameReader frame(clientSocket.get(), FrameReader::Patience::UNLIMITED, clientDeadline());
  Transfer outcome = frame.readLength();
  const bool lengthKnown = outcome == Transfer::COMPLETE;
  if (lengthKnown) {
    LOG_DEBUG("SSO API request message size: %d", static_cast<int>(frame.length()));
    outcome = frame.readPayload();
  }
  frameRefused = frame.length() > MAX_FRAME_BYTES;
  switch (outcome) {
    case Transfer::COMPLETE:
      break;
    case Transfer::CLOSED:
      LOG_ERROR("SSO API connection closed while reading request");
      return "";
    case Transfer::FAILED:
      if (lengthKnown) {
        LOG_ERROR("SSO API request read failed, read %d out of %d", static_cast<int>(frame.received()),
                  static_cast<int>(frame.length()));
      } else {
        LOG_ERROR("SSO API request read failed, read 4 bytes - message length");
      }
      return "";
    case Transfer::TIMED_OUT:
      LOG_ERROR("SSO API client has not sent its request in %g seconds", inSeconds(clientTimeout));
      return "";
  }
  std::string request = frame.text();
  LOG_INFO("SSO API received request %s", request.c_str());
  return request;
}

void SsoApiSocketProvider::sendReply(const std::string& text) {
  switch (sendAll(clientSocket.get(), makeFrame(text), clientDeadline())) {
    case Transfer::COMPLETE:
      break;
    case Transfer::CLOSED:
      LOG_ERROR("SSO API connection closed while sending reply");
      break;
    case Transfer::FAILED:
      LOG_ERROR("SSO API write failed");
      break;
    case Transfer::TIMED_OUT:
      LOG_ERROR("SSO API client has not taken its reply in %g seconds", inSeconds(clientTimeout));
      break;
  }
}

/// Takes what the client sent beyond its frame: closing a socket with unread input resets the connection, and the reset
/// could overtake the reply. The client of a frame that was refused gets a moment to finish sending.
void SsoApiSocketProvider::discardUnreadInput() {
  constexpr std::chrono::milliseconds MOMENT{1000};
  std::array<char, 16384> unwanted;
  const auto take = [&] { return ::recv(clientSocket.get(), unwanted.data(), unwanted.size(), MSG_DONTWAIT) > 0; };
  for (std::size_t taken = 0; taken < MAX_FRAME_BYTES && take(); taken += unwanted.size()) {
  }
  if (!frameRefused) {
    return;
  }
  ::shutdown(clientSocket.get(), SHUT_WR);
  const auto end = std::chrono::steady_clock::now() + MOMENT;
  pollfd watched{clientSocket.get(), POLLIN, 0};
  do {
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (rest.count() <= 0 || ::poll(&watched, 1, static_cast<int>(rest.count())) <= 0) {
      return;
    }
  } while (take());
}

}  // namespace velo::ssoService
