#include "util/Frames.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "util/Secrets.h"
#include "util/Signals.h"

namespace velo::ssoService {
namespace {

constexpr std::size_t LENGTH_BYTES = 4;
constexpr std::size_t FIRST_READ_BYTES = 255;
constexpr std::size_t CHUNK_BYTES = 16384;
constexpr std::chrono::seconds STOP_GRACE{1};
constexpr std::chrono::seconds BETWEEN_LOOKS{1};

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// What is left of the time, for poll; rounded up, so that the last millisecond is slept and not spun.
milliseconds restUntil(steady_clock::time_point end) {
  return std::max(std::chrono::ceil<milliseconds>(end - steady_clock::now()), milliseconds(0));
}

int poll(pollfd* watched, nfds_t count, milliseconds limit) {
  return ::poll(watched, count, static_cast<int>(limit.count()));
}

/// Waits until the connection can be read or written without a wait; false when the deadline passes first.
bool isReadyInTime(int connection, short event, const Deadline& deadline) {
  pollfd watched{connection, event, 0};
  while (deadline) {
    const milliseconds rest = restUntil(*deadline);
    if (rest.count() == 0) {
      return false;
    }
    if (poll(&watched, 1, std::min<milliseconds>(rest, BETWEEN_LOOKS)) > 0) {
      break;
    }
  }
  return true;
}

}  // namespace

FrameReader::FrameReader(int source, Patience waiting, const Deadline& end)
    : connection(source), patience(waiting), deadline(end) {
}

FrameReader::~FrameReader() {
  wipe(payload);
}

Transfer FrameReader::readLength() {
  SecretBytes<FIRST_READ_BYTES> first;  // part of a key, perhaps
  char* const head = first.bytes;
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
  lengthReadAt = steady_clock::now();
  growWiped(payload, std::min<std::size_t>(announced, CHUNK_BYTES));
  payload.assign(head + LENGTH_BYTES, std::min<std::size_t>(headCount - LENGTH_BYTES, announced));
  return Transfer::COMPLETE;
}

Transfer FrameReader::readPayload() {
  if (announced > MAX_FRAME_BYTES) {
    return Transfer::FAILED;
  }
  if (deadline) {
    *deadline += steady_clock::now() - lengthReadAt;
  }
  while (payload.size() < announced) {
    const std::size_t before = payload.size();
    const std::size_t wanted = std::min(CHUNK_BYTES, announced - before);
    growWiped(payload, before + wanted);
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
  const Transfer outcome = waitForInput();
  if (outcome != Transfer::COMPLETE) {
    return outcome;
  }
  const ssize_t result = ::read(connection, buffer, capacity);
  if (result <= 0) {
    return result == 0 ? Transfer::CLOSED : Transfer::FAILED;
  }
  count = static_cast<std::size_t>(result);
  return Transfer::COMPLETE;
}

/// COMPLETE when a read may follow, which without a limit does the waiting itself.
Transfer FrameReader::waitForInput() {
  if (patience == Patience::UNTIL_STOP) {
    return waitForInputOrStop();
  }
  return isReadyInTime(connection, POLLIN, deadline) ? Transfer::COMPLETE : Transfer::TIMED_OUT;
}

/// FAILED when a stop signal has come and the other side does not send in the grace time.
Transfer FrameReader::waitForInputOrStop() {
  pollfd watched[] = {{connection, POLLIN, 0}, {stopSignalDescriptor(), POLLIN, 0}};
  while (!isStopPending()) {  // a stop that another thread takes is seen at the next look
    const milliseconds rest = deadline ? restUntil(*deadline) : BETWEEN_LOOKS;
    if (rest.count() == 0) {
      return Transfer::TIMED_OUT;
    }
    if (poll(watched, 2, std::min<milliseconds>(rest, BETWEEN_LOOKS)) > 0 && watched[0].revents != 0) {
      return Transfer::COMPLETE;
    }
  }
  if (!graceEnd) {
    graceEnd = steady_clock::now() + STOP_GRACE;
  }
  if (poll(watched, 1, restUntil(*graceEnd)) > 0) {
    return Transfer::COMPLETE;
  }
  errno = EINTR;
  return Transfer::FAILED;
}

Transfer sendAll(int connection, const std::string& bytes, const Deadline& deadline) {
  const int flags = MSG_NOSIGNAL | (deadline ? MSG_DONTWAIT : 0);
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    if (!isReadyInTime(connection, POLLOUT, deadline)) {
      return Transfer::TIMED_OUT;
    }
    const ssize_t result = ::send(connection, bytes.data() + sent, bytes.size() - sent, flags);
    if (result < 0 && deadline && errno == EAGAIN) {
      continue;
    }
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
