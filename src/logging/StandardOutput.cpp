#include "logging/StandardOutput.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>

namespace {

constexpr std::chrono::seconds PATIENCE{5};
constexpr std::chrono::seconds BETWEEN_WAITS{60};
constexpr std::size_t PIECE_BYTES = PIPE_BUF;  // what a pipe with room takes without a wait

/// Waits for room until the time; an error counts as room, and shows in the write.
bool hasRoomBy(std::chrono::steady_clock::time_point end) {
  using std::chrono::milliseconds;
  const auto rest = std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
  pollfd watched{STDOUT_FILENO, POLLOUT, 0};
  return ::poll(&watched, 1, static_cast<int>(std::max(rest, milliseconds(0)).count())) != 0;
}

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
bool StandardOutput::writeWholeBy(std::chrono::steady_clock::time_point end, std::string_view text) {
  while (!text.empty()) {
    if (!hasRoomBy(end)) {
      return false;
    }
    const ssize_t count = ::write(STDOUT_FILENO, text.data(), std::min(text.size(), PIECE_BYTES));
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
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
