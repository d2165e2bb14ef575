#include "util/Frames.h"

#include <arpa/inet.h>
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
constexpr int STOP_GRACE_MILLISECONDS = 1000;

}  // namespace

FrameReader::FrameReader(int source, Patience waiting) : connection(source), patience(waiting) {
}

FrameReader::~FrameReader() {
  wipe(payload);
}

Transfer FrameReader::readLength() {
  payload.resize(FIRST_READ_BYTES);
  std::size_t headCount = 0;
  while (headCount < LENGTH_BYTES) {
    std::size_t count = 0;
    const Transfer outcome = readSome(payload.data() + headCount, FIRST_READ_BYTES - headCount, count);
    if (outcome != Transfer::COMPLETE) {
      payload.clear();
      return outcome;
    }
    headCount += count;
  }
  std::memcpy(&announced, payload.data(), LENGTH_BYTES);
  announced = ntohl(announced);
  payload.resize(headCount);
  payload.erase(0, LENGTH_BYTES);
  if (payload.size() > announced) {
    payload.resize(announced);
  }
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

/// Waits for the other side; false when a stop signal came and nothing else in its grace time.
bool FrameReader::waitForInput() {
  pollfd watched[] = {{connection, POLLIN, 0}, {stopSignalDescriptor(), POLLIN, 0}};
  while (!isStopPending()) {
    if (::poll(watched, 2, -1) > 0 && watched[0].revents != 0) {
      return true;
    }
  }
  const int grace = stopSeen ? 0 : STOP_GRACE_MILLISECONDS;
  stopSeen = true;
  return ::poll(watched, 1, grace) > 0;
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
  std::string frame(LENGTH_BYTES, '\0');
  std::memcpy(frame.data(), &prefix, LENGTH_BYTES);
  return frame.append(text, 0, textLength);
}

}  // namespace velo::ssoService
