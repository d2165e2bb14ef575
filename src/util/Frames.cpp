#include "util/Frames.h"

#include <arpa/inet.h>
#include <openssl/crypto.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "util/Secrets.h"
#include "util/StopSignals.h"

namespace velo::ssoService {
namespace {

constexpr std::size_t LENGTH_BYTES = 4;
constexpr std::size_t FIRST_READ_BYTES = 255;
constexpr std::size_t CHUNK_BYTES = 16384;
constexpr std::chrono::seconds STOP_GRACE{1};

}  // namespace

FrameReader::FrameReader(int source, Patience waiting) : connection(source), patience(waiting) {
}

FrameReader::~FrameReader() {
  wipe(payload);
}

Transfer FrameReader::readLength() {
  char head[FIRST_READ_BYTES];
  std::size_t headCount = 0;
  while (headCount < LENGTH_BYTES) {
    std::size_t count = 0;
    const Transfer outcome = readSome(head + headCount, FIRST_READ_BYTES - headCount, count);
    if (outcome != Transfer::COMPLETE) {
      return outcome;
    }
    headCount += count;
  }
  std::memcpy(&announced, head, LENGTH_BYTES);
  announced = ntohl(announced);
  payload.reserve(
      std::min<std::size_t>(announced, CHUNK_BYTES));  // a text that grows would leave copies of a key behind
  payload.assign(head + LENGTH_BYTES, std::min<std::size_t>(headCount - LENGTH_BYTES, announced));
  OPENSSL_cleanse(head, sizeof head);
  return Transfer::COMPLETE;
}

Transfer FrameReader::readPayload() {
  if (announced > MAX_FRAME_BYTES) {
    return Transfer::FAILED;
  }
  while (payload.size() < announced) {
    const std::size_t before = payload.size();
    const std::size_t wanted = std::min(CHUNK_BYTES, announced - before);
    payload.resize(before + wanted);
    std::size_t count = 0;
    const Transfer outcome = readSome(payload.data() + before, wanted, count);
    payload.resize(before + count);
    if (outcome != Transfer::COMPLETE) {
      return outcome;
    }
  }
  return Transfer::COMPLETE;
}

Transfer FrameReader::readSome(char* buffer, std::size_t capacity, std::size_t& count) {
  if (patience == Patience::UNTIL_STOP && !waitForInput()) {
    errno = EINTR;
    return Transfer::FAILED;
  }
  const ssize_t result = ::read(connection, buffer, capacity);
  if (result <= 0) {
    return result == 0 ? Transfer::CLOSED : Transfer::FAILED;
  }
  count = static_cast<std::size_t>(result);
  return Transfer::COMPLETE;
}

/// Waits for the other side; false when a stop signal has come and the other side does not send in the grace time.
bool FrameReader::waitForInput() {
  pollfd watched[] = {{connection, POLLIN, 0}, {stopSignalDescriptor(), POLLIN, 0}};
  while (!isStopPending()) {
    constexpr int MILLISECONDS_BETWEEN_LOOKS = 1000;  // a stop that another thread takes is seen by then
    if (::poll(watched, 2, MILLISECONDS_BETWEEN_LOOKS) > 0 && watched[0].revents != 0) {
      return true;
    }
  }
  const auto now = std::chrono::steady_clock::now();
  if (!graceEnd) {
    graceEnd = now + STOP_GRACE;
  }
  const auto rest = std::chrono::ceil<std::chrono::milliseconds>(*graceEnd - now);
  return ::poll(watched, 1, static_cast<int>(std::max<std::int64_t>(rest.count(), 0))) > 0;
}

Transfer sendAll(int connection, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t result = ::send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (result <= 0) {
      return result == 0 ? Transfer::CLOSED : Transfer::FAILED;
    }
    sent += static_cast<std::size_t>(result);
  }
  return Transfer::COMPLETE;
}

std::string makeFrame(const std::string& text) {
  const std::size_t textLength = std::strlen(text.c_str());
  const std::uint32_t prefix = htonl(static_cast<std::uint32_t>(textLength));
  std::string frame(LENGTH_BYTES + textLength, '\0');
  std::memcpy(frame.data(), &prefix, LENGTH_BYTES);
  std::memcpy(frame.data() + LENGTH_BYTES, text.data(), textLength);
  return frame;
}

}  // namespace velo::ssoService
