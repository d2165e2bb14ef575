#include "logging/StandardOutput.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <thread>

namespace {

constexpr std::chrono::seconds PATIENCE{5};
constexpr std::chrono::seconds BETWEEN_WAITS{60};
constexpr std::chrono::milliseconds AFTER_A_REFUSAL{10};
constexpr int MILLISECONDS_BETWEEN_LOOKS = 100;
constexpr std::size_t PIECE_BYTES = PIPE_BUF;  // what a pipe with room takes without a wait

}  // namespace

void StandardOutput::write(std::string_view text) {
  const auto now = std::chrono::steady_clock::now();
  const bool waits = lost == 0 && now >= patientFrom;
  const auto end = waits ? now + PATIENCE : now;
  if (lost > 0) {
    char note[64] = "";
    const int length = std::snprintf(note, sizeof note, "%sLOG LOST %zu lines\n", isCut ? "\n" : "", lost);
    if (!writeWholeBy(end, {note, static_cast<std::size_t>(std::max(length, 0))})) {
      ++lost;
      return;
    }
    lost = 0;
    isCut = false;
  }
  if (!writeWholeBy(end, text)) {
    ++lost;
    patientFrom = waits ? end + BETWEEN_WAITS : patientFrom;
  }
}

/// False when there was no room in time. A text that cannot be written for another reason is nobody's loss: who
/// closed standard output does not read it.
bool StandardOutput::writeWholeBy(TimePoint end, std::string_view text) {
  while (!text.empty()) {
    if (!hasRoomBy(end)) {
      return false;
    }
    const ssize_t count = writeSome(text);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0 && errno == EAGAIN) {  // in spite of the room
      if (isOver(end)) {
        return false;
      }
      std::this_thread::sleep_for(AFTER_A_REFUSAL);
      continue;
    }
    if (count <= 0) {
      return true;
    }
    text.remove_prefix(static_cast<std::size_t>(count));
    isCut = !text.empty();
  }
  return true;
}

/// As much as goes without a wait once there is room: a socket may have less of it than a pipe.
ssize_t StandardOutput::writeSome(std::string_view text) {
  const std::size_t size = std::min(text.size(), PIECE_BYTES);
  if (mayBeSocket) {
    const ssize_t count = ::send(STDOUT_FILENO, text.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count >= 0 || errno != ENOTSOCK) {
      return count;
    }
    mayBeSocket = false;
  }
  return ::write(STDOUT_FILENO, text.data(), size);
}

/// Waits for room until the time; an error counts as room, and shows in the write.
bool StandardOutput::hasRoomBy(TimePoint end) {
  pollfd watched{STDOUT_FILENO, POLLOUT, 0};
  for (int limit = 0; ::poll(&watched, 1, limit) == 0; limit = MILLISECONDS_BETWEEN_LOOKS) {
    if (isOver(end)) {
      return false;
    }
  }
  return true;
}

/// Whether nothing is waited for any more.
bool StandardOutput::isOver(TimePoint end) {
  const auto now = std::chrono::steady_clock::now();
  if (lastEnd == TimePoint::max() && isEnding != nullptr && isEnding()) {
    lastEnd = now + PATIENCE;
  }
  return now >= std::min(end, lastEnd);
}
