#include "logging/StandardOutput.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>

namespace {

constexpr int PATIENCE_MILLISECONDS = 5000;
constexpr std::size_t PIECE_BYTES = PIPE_BUF;  // what a pipe with room takes without a wait

bool hasRoom(int limit) {
  pollfd watched{STDOUT_FILENO, POLLOUT, 0};
  return ::poll(&watched, 1, limit) != 0;  // an error shows in the write
}

}  // namespace

void StandardOutput::write(std::string_view text) {
  if (lost > 0) {
    char note[64] = "";
    const int length = std::snprintf(note, sizeof note, "%sLOG LOST %zu lines\n", isCut ? "\n" : "", lost);
    if (!hasRoom(0) || !writeWhole({note, static_cast<std::size_t>(std::max(length, 0))})) {
      ++lost;
      return;
    }
    lost = 0;
    isCut = false;
  }
  if (!writeWhole(text)) {
    ++lost;
  }
}

/// False when there was no room in time. A text that cannot be written for another reason is nobody's loss: who
/// closed standard output does not read it.
bool StandardOutput::writeWhole(std::string_view text) {
  while (!text.empty()) {
    if (!hasRoom(PATIENCE_MILLISECONDS)) {
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
