#include "exchange.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#define LENGTH_BYTES 4
#define NANOSECONDS_A_MILLISECOND 1000000

struct connection {
  int descriptor;
  int64_t deadline_ns; /* on the monotonic clock */
};

void ssoclient_release(struct ssoclient_bytes* bytes) {
  if (bytes->data) {
    explicit_bzero(bytes->data, bytes->length);
    free(bytes->data);
  }
  bytes->data = NULL;
}

static int64_t now_ns(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

/* Milliseconds until the deadline, rounded up so that a wait never ends before it; 0 once it has passed. */
static int remaining_ms(int64_t deadline_ns) {
  const int64_t remaining_ns = deadline_ns - now_ns();
  return remaining_ns > 0 ? (int)((remaining_ns + NANOSECONDS_A_MILLISECOND - 1) / NANOSECONDS_A_MILLISECOND) : 0;
}

/* Waits until the connection is ready for one of these events, or has failed: the next call on it tells. */
static enum ssoclient_status wait_for(const struct connection* connection, short events) {
  struct pollfd waiting = {connection->descriptor, events, 0};
  for (;;) {
    const int remaining = remaining_ms(connection->deadline_ns);
    if (remaining == 0) {
      return SSOCLIENT_TIMED_OUT;
    }
    const int ready = poll(&waiting, 1, remaining);
    if (ready > 0) {
      return SSOCLIENT_OK;
    }
    if (ready < 0 && errno != EINTR) {
      return SSOCLIENT_OUT_OF_MEMORY; /* what poll fails with else cannot happen to these arguments */
    }
  }
}

/* Linux lets a socket connect to itself when it happens to get the port that it connects to. */
static bool is_connected_to_itself(int descriptor, const struct sockaddr_in* peer) {
  struct sockaddr_in own = {0};
  socklen_t length = sizeof own;
  return getsockname(descriptor, (struct sockaddr*)&own, &length) == 0 && own.sin_port == peer->sin_port;
}

/* Why a connection did not come about, or 0. */
static int socket_error(int descriptor) {
  int error = 0;
  socklen_t length = sizeof error;
  return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

static enum ssoclient_status connect_to(const struct connection* connection, int port) {
  struct sockaddr_in peer = {0};
  peer.sin_family = AF_INET;
  peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  peer.sin_port = htons((uint16_t)port);
  if (connect(connection->descriptor, (const struct sockaddr*)&peer, sizeof peer) != 0) {
    if (errno != EINPROGRESS && errno != EINTR) {
      return SSOCLIENT_CANNOT_CONNECT;
    }
    const enum ssoclient_status waited = wait_for(connection, POLLOUT);
    if (waited != SSOCLIENT_OK) {
      return waited;
    }
    errno = socket_error(connection->descriptor);
    if (errno != 0) {
      return SSOCLIENT_CANNOT_CONNECT;
    }
  }
  if (is_connected_to_itself(connection->descriptor, &peer)) {
    errno = ECONNREFUSED;
    return SSOCLIENT_CANNOT_CONNECT;
  }
  return SSOCLIENT_OK;
}

/* Whether a call that failed on a connection is worth another try. */
static bool may_retry(void) {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

/* Both wait before each piece, even if it is there already, so that no stream of small pieces outlasts the deadline. */

static enum ssoclient_status send_all(const struct connection* connection, const char* bytes, size_t length) {
  while (length > 0) {
    const enum ssoclient_status waited = wait_for(connection, POLLOUT);
    if (waited != SSOCLIENT_OK) {
      return waited;
    }
    const ssize_t sent = send(connection->descriptor, bytes, length, MSG_NOSIGNAL);
    if (sent >= 0) {
      bytes += sent;
      length -= (size_t)sent;
    } else if (!may_retry()) {
      return SSOCLIENT_CONNECTION_CLOSED;
    }
  }
  return SSOCLIENT_OK;
}

static enum ssoclient_status receive_all(const struct connection* connection, char* bytes, size_t length,
                                         size_t* received) {
  *received = 0;
  while (*received < length) {
    const enum ssoclient_status waited = wait_for(connection, POLLIN);
    if (waited != SSOCLIENT_OK) {
      return waited;
    }
    const ssize_t count = recv(connection->descriptor, bytes + *received, length - *received, 0);
    if (count > 0) {
      *received += (size_t)count;
    } else if (count == 0 || !may_retry()) {
      return SSOCLIENT_CONNECTION_CLOSED;
    }
  }
  return SSOCLIENT_OK;
}

/* A frame is a payload behind its length in four bytes, big-endian. */

static enum ssoclient_status send_frame(const struct connection* connection, const char* payload, size_t length) {
  char* const frame = malloc(LENGTH_BYTES + length);
  if (!frame) {
    return SSOCLIENT_OUT_OF_MEMORY;
  }
  const uint32_t announced = htonl((uint32_t)length);
  memcpy(frame, &announced, LENGTH_BYTES);
  memcpy(frame + LENGTH_BYTES, payload, length);
  const enum ssoclient_status sent = send_all(connection, frame, LENGTH_BYTES + length);
  free(frame);
  return sent;
}

static enum ssoclient_status receive_frame(const struct connection* connection, struct ssoclient_bytes* reply) {
  uint32_t announced;
  size_t received;
  const enum ssoclient_status status = receive_all(connection, (char*)&announced, LENGTH_BYTES, &received);
  if (status != SSOCLIENT_OK) {
    return status;
  }
  const size_t length = ntohl(announced);
  if (length > (size_t)SSOCLIENT_MAX_REPLY_BYTES) {
    return SSOCLIENT_MALFORMED_REPLY;
  }
  /* The limit is small enough to reserve what is announced; the pages come with the bytes. A byte more, so that an
   * empty payload is no failure. */
  reply->data = malloc(length + 1);
  if (!reply->data) {
    return SSOCLIENT_OUT_OF_MEMORY;
  }
  return receive_all(connection, reply->data, length, &reply->length);
}

static enum ssoclient_status exchange_on(const struct connection* connection, int port, const char* payload,
                                         size_t length, struct ssoclient_bytes* reply) {
  enum ssoclient_status status = connect_to(connection, port);
  if (status == SSOCLIENT_OK) {
    status = send_frame(connection, payload, length);
  }
  if (status == SSOCLIENT_OK) {
    status = receive_frame(connection, reply);
  }
  return status;
}

enum ssoclient_status ssoclient_exchange(int port, const char* payload, size_t length, int timeout_ms,
                                         struct ssoclient_bytes* reply) {
  reply->data = NULL;
  const struct connection connection = {socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0),
                                        now_ns() + (int64_t)timeout_ms * NANOSECONDS_A_MILLISECOND};
  if (connection.descriptor < 0) {
    return SSOCLIENT_CANNOT_CONNECT;
  }
  const enum ssoclient_status status = exchange_on(&connection, port, payload, length, reply);
  const int error = errno;
  close(connection.descriptor);
  if (status != SSOCLIENT_OK) {
    ssoclient_release(reply);
  }
  errno = error;
  return status;
}
