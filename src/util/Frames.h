#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace velo::ssoService {

/// The largest payload that is accepted from a local client or the key service. A bigger frame counts as failed when
/// its length is known, before any memory is spent on it.
constexpr std::uint32_t MAX_FRAME_BYTES = 1024 * 1024;

/// How a transfer on a connection ended.
enum class Transfer {
  COMPLETE,
  CLOSED,    ///< the other side closed the connection
  FAILED,    ///< an error (errno tells, EINTR included), or a frame that is too large
  TIMED_OUT  ///< the deadline has passed; only with one
};

/// When a transfer as a whole has to be done; none: when it is done.
using Deadline = std::optional<std::chrono::steady_clock::time_point>;

/// Reads one frame from a connection: a payload length of four bytes, big-endian, and the payload. Bytes that the other
/// side sends beyond the frame are ignored. Memory grows with the bytes that arrive, not with the announced length.
class FrameReader {
 public:
  enum class Patience {
    UNLIMITED,  ///< waits for the other side as long as it takes
    UNTIL_STOP  ///< a stop signal ends the wait like an interrupted read, a second after it is seen
  };

  /// The descriptor stays the caller's.
  explicit FrameReader(int source, Patience waiting = Patience::UNLIMITED, const Deadline& end = std::nullopt);
  ~FrameReader();
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;

  /// Reads until the length is known. What arrives with it is kept for readPayload.
  Transfer readLength();

  /// Reads the rest of the frame. FAILED at once for a length over MAX_FRAME_BYTES. The time between the two calls does
  /// not count: it is not the other side that was slow.
  Transfer readPayload();

  std::uint32_t length() const { return announced; }
  std::size_t received() const { return payload.size(); }  ///< payload bytes so far

  /// The payload up to its first NUL, if it has one.
  std::string text() const { return payload.c_str(); }

 private:
  Transfer readSome(char* buffer, std::size_t capacity, std::size_t& count);
  Transfer waitForInput();
  Transfer waitForInputOrStop();

  const int connection;
  const Patience patience;
  Deadline deadline;
  Deadline graceEnd;  // once a stop is seen
  std::chrono::steady_clock::time_point lengthReadAt;
  std::uint32_t announced = 0;
  std::string payload;  // wiped: it may carry a private key or a token
};

/// Sends all of the bytes, in as many writes as it takes. CLOSED when a write takes nothing, FAILED when one fails.
Transfer sendAll(int connection, const std::string& bytes, const Deadline& deadline = std::nullopt);

/// The frame that carries this text, which ends at its first NUL.
std::string makeFrame(const std::string& text);

}  // namespace velo::ssoService
