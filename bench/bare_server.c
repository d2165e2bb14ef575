/* The least that a server of the local API's frames can do: accepts a connection, reads one frame, writes the reply
   that a file holds, closes. What it reaches is the limit of this machine and its kernel. No client is ill-behaved.

     bare_server REPLY

   Prints its port, and serves until it is ended. */
#include <arpa/inet.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum { BACKLOG = 5, LENGTH_BYTES = 4 };

static char reply[65536];
static size_t reply_size;
static char request[65536];

static void fail(const char* what) {
  perror(what);
  exit(1);
}

static void read_reply(const char* name) {
  FILE* file = fopen(name, "rb");
  if (file == NULL) {
    fail(name);
  }
  reply_size = fread(reply, 1, sizeof reply, file);
  fclose(file);
}

static int listen_anywhere(void) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int reuse = 1;
  struct sockaddr_in address = {.sin_family = AF_INET, .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
  socklen_t size = sizeof address;
  if (listener < 0 || setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0 ||
      bind(listener, (const struct sockaddr*)&address, size) != 0 || listen(listener, BACKLOG) != 0 ||
      getsockname(listener, (struct sockaddr*)&address, &size) != 0) {
    fail("listening");
  }
  printf("%d\n", ntohs(address.sin_port));
  fflush(stdout);
  return listener;
}

/* A frame that arrives whole, as from the load generator, takes one read. */
static void read_frame(int client) {
  size_t received = 0, wanted = LENGTH_BYTES;
  while (received < wanted) {
    const ssize_t count = read(client, request + received, sizeof request - received);
    if (count <= 0) {
      fail("reading a frame");
    }
    received += (size_t)count;
    if (received >= LENGTH_BYTES) {
      uint32_t length;
      memcpy(&length, request, sizeof length);
      wanted = LENGTH_BYTES + ntohl(length);
    }
  }
}

int main(int argc, char** argv) {
  if (argc != 2) {
    fputs("usage: bare_server REPLY\n", stderr);
    return 1;
  }
  read_reply(argv[1]);
  const int listener = listen_anywhere();
  for (;;) {
    const int client = accept(listener, NULL, NULL);
    if (client < 0) {
      fail("accepting");
    }
    read_frame(client);
    if (write(client, reply, reply_size) != (ssize_t)reply_size) {
      fail("writing the reply");
    }
    close(client);
  }
}
