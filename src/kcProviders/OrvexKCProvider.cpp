#include "kcProviders/OrvexKCProvider.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdint>

#include "KCException.h"
#include "logging/logging.h"
#include "util/Frames.h"
#include "util/Loopback.h"
#include "util/Secrets.h"
#include "util/Signals.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "kcProviders/OrvexKCProvider";
constexpr int KEY_SERVICE_CONNECT_TIMEOUT_SECONDS = 10;

/// Waits for the outcome of a connection attempt; false when it failed or did not end in time, which is a second once
/// the process is to stop.
bool isConnected(int connection) {
  pollfd watched[] = {{connection, POLLOUT, 0}, {stopSignalDescriptor(), POLLIN, 0}};
  if (!isStopPending()) {
    ::poll(watched, 2, KEY_SERVICE_CONNECT_TIMEOUT_SECONDS * 1000);
  }
  const int grace = isStopPending() ? 1000 : 0;
  if (::poll(watched, 1, grace) != 1) {
    return false;
  }
  int error = 0;
  socklen_t length = sizeof error;
  return ::getsockopt(connection, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

}  // namespace

OrvexKCProvider::OrvexKCProvider(int servicePort, std::chrono::seconds limitOfReply)
    : port(servicePort), replyLimit(limitOfReply) {
}

OrvexKCProvider::~OrvexKCProvider() {
  wipe(privateKey);
  wipe(certificate);  // it may hold the key as well: one text for both is common
}

std::string OrvexKCProvider::getPrivateKey(bool reload) {
  if (reload || privateKey.empty()) {
    wipe(privateKey);
    LOG_INFO("Orvex retrieving the key");
    requestKeyCertificate("privatekey", &privateKey);
  }
  return privateKey;
}

std::string OrvexKCProvider::getCertificate(bool reload) {
  if (reload || certificate.empty()) {
    wipe(certificate);
    wipe(publicKey);
    LOG_INFO("Orvex retrieving the certificate");
    requestKeyCertificate("certificate", &certificate);
  }
  return certificate;
}

void OrvexKCProvider::requestKeyCertificate(const std::string& request, std::string* out) {
  LOG_INFO("Orvex Sending %s key/certificate request", request.c_str());
  wipe(*out);
  connectToKeyService();
  sendRequest(request);
  readReply(out);  // Kept: without a reply the text stays empty, and that is no failure here.
  socketFd.reset();
  if (out->rfind("Error", 0) == 0) {
    const std::string reply = out->substr(0, out->find("-----BEGIN"));  // a key is not to get any further
    wipe(*out);
    throw KCException("Couldn't load key/certificate. Received: " + reply);
  }
}

bool OrvexKCProvider::connectToKeyService() {
  socketFd.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socketFd.isOpen()) {
    fail("Orvex Key Certificate socket creation failed");
  }
  LOG_INFO("Orvex Key Certificate socket successfully created");
  const sockaddr_in address = loopbackAddress(port);
  ::fcntl(socketFd.get(), F_SETFL, O_NONBLOCK);
  // The outcome is read from the socket once it has one.
  static_cast<void>(::connect(socketFd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
  if (!isConnected(socketFd.get())) {
    fail("Orvex Key Certificate socket couldn't be open");
  }
  LOG_INFO("Orvex Key Certificate connected to the server");
  const int flags = ::fcntl(socketFd.get(), F_GETFL);
  ::fcntl(socketFd.get(), F_SETFL, flags & ~O_NONBLOCK);
  return true;
}

bool OrvexKCProvider::sendRequest(const std::string& request) {
  LOG_DEBUG("Orvex Sending %s key/certificate request", request.c_str());
  switch (sendAll(socketFd.get(), request)) {
    case Transfer::COMPLETE:
      break;
    case Transfer::CLOSED:
      fail("Orvex Key Certificate Connection closed while sending the request");
    case Transfer::FAILED:
    case Transfer::TIMED_OUT:
      fail("Orvex Key Certificate sending the request failed");
  }
  LOG_DEBUG("Orvex Key Certificate request sent %d bytes", static_cast<int>(request.size()));
  return true;
}

bool OrvexKCProvider::readReply(std::string* out) {
  const Deadline deadline =
      replyLimit.count() > 0 ? Deadline(std::chrono::steady_clock::now() + replyLimit) : std::nullopt;
  FrameReader reply(socketFd.get(), FrameReader::Patience::UNTIL_STOP, deadline);
  // Kept: the texts for a missing length speak of the local API.
  switch (reply.readLength()) {
    case Transfer::COMPLETE:
      break;
    case Transfer::CLOSED:
      LOG_ERROR("SSO API connection closed while reading request");
      return false;
    case Transfer::FAILED:
      LOG_ERROR("SSO API request read failed, read 4 bytes - message length");
      return false;
    case Transfer::TIMED_OUT:
      failInTime();
  }
  LOG_DEBUG("SSO API request message size: %d", static_cast<int>(reply.length()));
  switch (reply.readPayload()) {
    case Transfer::COMPLETE:
      break;
    case Transfer::CLOSED:
      LOG_INFO("Orvex connection closed before all data read");
      socketFd.reset();
      throw KCException("Orvex connection closed before all data read");
    case Transfer::FAILED:
      fail("Orvex read reply failed: read " + std::to_string(reply.received()) + " bytes");
    case Transfer::TIMED_OUT:
      failInTime();
  }
  *out = reply.text();
  LOG_DEBUG("Total bytes read %d", static_cast<int>(reply.received()));
  return true;
}

void OrvexKCProvider::failInTime() {
  fail("Orvex Key Certificate no reply in " + std::to_string(replyLimit.count()) + " seconds");
}

/// Ends the exchange with an error that is logged and thrown with the same text.
void OrvexKCProvider::fail(const std::string& text) {
  LOG_ERROR("%s", text.c_str());
  socketFd.reset();
  throw KCException(text);
}

}  // namespace velo::ssoService
