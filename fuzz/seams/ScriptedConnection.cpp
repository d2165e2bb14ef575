#include "seams/ScriptedConnection.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "Require.h"
#include "util/Signals.h"

namespace fuzz {
namespace {

ConnectionScript script;
ConnectionRecord record;
int descriptor = -1;
unsigned looks = 0;

bool isScripted(int socket) {
  return socket >= 0 && socket == descriptor;
}

int fail(int reason) {
  errno = reason;
  return -1;
}

/// Counts what was taken as read; the stop comes with it.
void advance(std::size_t count) {
  record.read += count;
  if (record.read >= script.stopAfter) {
    velo::ssoService::stopRequested = 1;
  }
}

ssize_t readScripted(void* buffer, std::size_t capacity) {
  record.largestRead = std::max(record.largestRead, capacity);
  std::size_t count = std::min({capacity, script.piece, script.incoming.size() - record.read});
  if (record.read < script.stopAfter) {
    count = std::min(count, script.stopAfter - record.read);
  }
  if (count == 0) {
    return script.readEnd == 0 ? 0 : fail(script.readEnd);
  }
  script.incoming.copy(static_cast<char*>(buffer), count, record.read);
  advance(count);
  return static_cast<ssize_t>(count);
}

ssize_t sendScripted(const void* bytes, std::size_t size) {
  const std::size_t count = std::min({size, script.piece, script.room - record.outgoing.size()});
  if (count == 0) {
    return script.sendEnd == 0 ? 0 : fail(script.sendEnd);
  }
  record.outgoing.append(static_cast<const char*>(bytes), count);
  return static_cast<ssize_t>(count);
}

/// Whether a wait for input ends with some.
bool isInputThere() {
  if (velo::ssoService::stopRequested != 0) {
    return script.goesOnAfterStop;
  }
  ++looks;
  return looks > script.idleLooks;
}

int pollScripted(pollfd* watched) {
  watched->revents = 0;
  if (watched->events == POLLOUT ? !script.connects : !isInputThere()) {
    return script.idleFails ? fail(EINTR) : 0;
  }
  looks = 0;
  watched->revents = watched->events;
  return 1;
}

}  // namespace

ConnectionScript takeConnection(Input& input) {
  static constexpr std::array<int, 6> ENDS = {0, EINTR, EAGAIN, ECONNRESET, EPIPE, EIO};
  ConnectionScript made;
  const std::uint8_t choice = input.byte();
  if ((choice & 1U) != 0) {
    made.piece = 1 + input.byte();
  }
  if ((choice & 2U) != 0) {
    made.readEnd = ENDS[input.below(ENDS.size())];
  }
  if ((choice & 4U) != 0) {
    made.room = input.number();
    made.sendEnd = ENDS[input.below(ENDS.size())];
  }
  if ((choice & 8U) != 0) {
    made.idleLooks = input.byte() % 4U;
    made.idleFails = input.flag();
  }
  if ((choice & 16U) != 0) {
    made.stopAfter = input.number();
    made.goesOnAfterStop = input.flag();
  }
  if ((choice & 32U) != 0) {
    made.hasSocket = input.flag();
    made.connects = input.flag();
    made.connectError = ENDS[input.below(ENDS.size())];
  }
  return made;
}

void scriptConnection(const ConnectionScript& next) {
  script = next;
  record = {};
  looks = 0;
  descriptor = -1;
  velo::ssoService::stopRequested = 0;
  advance(0);
}

int openConnection(const ConnectionScript& next) {
  scriptConnection(next);
  descriptor = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  return descriptor;
}

const ConnectionRecord& connectionRecord() {
  return record;
}

bool isConnectionOpen() {
  return descriptor >= 0 && ::fcntl(descriptor, F_GETFD) >= 0;
}

}  // namespace fuzz

extern "C" {

ssize_t __real_read(int socket, void* buffer, size_t capacity);
ssize_t __wrap_read(int socket, void* buffer, size_t capacity);
ssize_t __wrap_read(int socket, void* buffer, size_t capacity) {
  return fuzz::isScripted(socket) ? fuzz::readScripted(buffer, capacity) : __real_read(socket, buffer, capacity);
}

ssize_t __wrap_recv(int socket, void* buffer, size_t capacity, int flags);
ssize_t __wrap_recv(int socket, void* buffer, size_t capacity, int flags) {
  fuzz::require(fuzz::isScripted(socket) && flags == MSG_DONTWAIT, "leftovers are not waited for");
  return fuzz::readScripted(buffer, capacity);
}

ssize_t __wrap_send(int socket, const void* bytes, size_t size, int flags);
ssize_t __wrap_send(int socket, const void* bytes, size_t size, int flags) {
  fuzz::require(fuzz::isScripted(socket) && (flags & MSG_NOSIGNAL) != 0, "a lost client sends no signal");
  return fuzz::sendScripted(bytes, size);
}

int __real_poll(pollfd* watched, nfds_t count, int limit);
int __wrap_poll(pollfd* watched, nfds_t count, int limit);
int __wrap_poll(pollfd* watched, nfds_t count, int limit) {
  if (count > 0 && fuzz::isScripted(watched->fd)) {
    return fuzz::pollScripted(watched);
  }
  return __real_poll(watched, count, limit);
}

int __wrap_socket(int family, int type, int protocol);
int __wrap_socket(int /*family*/, int /*type*/, int /*protocol*/) {
  return fuzz::script.hasSocket ? fuzz::openConnection(fuzz::ConnectionScript(fuzz::script)) : fuzz::fail(EMFILE);
}

int __wrap_connect(int socket, const sockaddr* address, socklen_t length);
int __wrap_connect(int socket, const sockaddr* address, socklen_t length) {
  const auto* const loopback = reinterpret_cast<const sockaddr_in*>(address);
  fuzz::require(
      fuzz::isScripted(socket) && length == sizeof *loopback && loopback->sin_addr.s_addr == htonl(INADDR_LOOPBACK),
      "connections go to 127.0.0.1");
  fuzz::record.port = ntohs(loopback->sin_port);
  return fuzz::fail(EINPROGRESS);
}

int __wrap_getsockopt(int socket, int level, int option, void* value, socklen_t* length);
int __wrap_getsockopt(int socket, int level, int option, void* value, socklen_t* length) {
  fuzz::require(fuzz::isScripted(socket) && level == SOL_SOCKET && option == SO_ERROR && *length == sizeof(int),
                "the outcome of the connection is asked for");
  *static_cast<int*>(value) = fuzz::script.connectError;
  return 0;
}

int __wrap_shutdown(int socket, int how);
int __wrap_shutdown(int socket, int how) {
  fuzz::require(fuzz::isScripted(socket) && how == SHUT_WR, "only sending is shut down");
  fuzz::record.isShutDown = true;
  return 0;
}

// The same calls as a build with _FORTIFY_SOURCE makes them, with the size of the buffer.

ssize_t __wrap___read_chk(int socket, void* buffer, size_t capacity, size_t size);
ssize_t __wrap___read_chk(int socket, void* buffer, size_t capacity, size_t size) {
  fuzz::require(capacity <= size, "a read fits its buffer");
  return __wrap_read(socket, buffer, capacity);
}

ssize_t __wrap___recv_chk(int socket, void* buffer, size_t capacity, size_t size, int flags);
ssize_t __wrap___recv_chk(int socket, void* buffer, size_t capacity, size_t size, int flags) {
  fuzz::require(capacity <= size, "a read fits its buffer");
  return __wrap_recv(socket, buffer, capacity, flags);
}

int __wrap___poll_chk(pollfd* watched, nfds_t count, int limit, size_t size);
int __wrap___poll_chk(pollfd* watched, nfds_t count, int limit, size_t size) {
  fuzz::require(count <= size / sizeof *watched, "a poll fits its buffer");
  return __wrap_poll(watched, count, limit);
}
}
