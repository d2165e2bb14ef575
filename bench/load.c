/* Asks a server the same again and again, one connection a request, and measures how long each takes: from before the
   connection is opened until the reply is complete and the server has closed it.

     load PORT REQUEST REPLY CLIENTS SECONDS REQUESTS

   REQUEST and REPLY are files with a whole frame; every reply has to equal REPLY. CLIENTS threads go on until SECONDS
   have passed or REQUESTS have been made. Prints a line of JSON. Any failure is said on standard error and makes the
   exit status 1.

   No side runs out of ports: the server closes first, so that it is the server's end of a connection that lingers (in
   TIME_WAIT), under the server's one port. The client's port is free as soon as its own end is closed, and when it
   comes round again, within the minute that the other end lingers, the kernel lets the new connection take over: its
   first sequence number is higher. When too many ends linger, the kernel drops some early, which nobody notices. */
#include <arpa/inet.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { MAX_CLIENTS = 64, MAX_FRAME = 65536 };

struct frame {
  size_t size;
  char bytes[MAX_FRAME];
};

static struct sockaddr_in server = {.sin_family = AF_INET};
static struct frame request;
static struct frame expected;
static uint64_t end;           /* in the clock's nanoseconds */
static size_t most;            /* requests in all */
static uint64_t* nanoseconds;  /* how long each request took */
static atomic_size_t begun;    /* requests; the next one's place in nanoseconds */
static atomic_size_t failures; /* more than none ends all clients */

static uint64_t now(void) {
  struct timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return (uint64_t)time.tv_sec * 1000000000U + (uint64_t)time.tv_nsec;
}

static void failed(const char* what) {
  perror(what);
  atomic_fetch_add(&failures, 1);
}

/* Sends the request and reads until the server closes the connection. */
static void exchange(int connection) {
  char reply[MAX_FRAME];
  size_t size = 0;
  ssize_t count;
  if (connect(connection, (const struct sockaddr*)&server, sizeof server) != 0) {
    failed("connect");
    return;
  }
  if (send(connection, request.bytes, request.size, MSG_NOSIGNAL) != (ssize_t)request.size) {
    failed("send");
    return;
  }
  while ((count = recv(connection, reply + size, sizeof reply - size, 0)) > 0) {
    size += (size_t)count;
  }
  if (count < 0) {
    failed("recv");
  } else if (size != expected.size || memcmp(reply, expected.bytes, size) != 0) {
    fprintf(stderr, "a reply of %zu bytes is not the expected one\n", size);
    atomic_fetch_add(&failures, 1);
  }
}

static void* run_client(void* unused) {
  (void)unused;
  for (;;) {
    const uint64_t start = now();
    if (start >= end || atomic_load(&failures) > 0) {
      return NULL;
    }
    const size_t place = atomic_fetch_add(&begun, 1);
    if (place >= most) {
      return NULL;
    }
    const int connection = socket(AF_INET, SOCK_STREAM, 0);
    if (connection < 0) {
      failed("socket");
      return NULL;
    }
    exchange(connection);
    close(connection);
    nanoseconds[place] = now() - start;
  }
}

static int ascending(const void* left, const void* right) {
  const uint64_t a = *(const uint64_t*)left, b = *(const uint64_t*)right;
  return (a > b) - (a < b);
}

static void print_results(size_t requests, double seconds) {
  qsort(nanoseconds, requests, sizeof *nanoseconds, ascending);
  printf("{\"requests\": %zu, \"seconds\": %.6f, \"per_second\": %.1f", requests, seconds, (double)requests / seconds);
  printf(", \"p50\": %.3f", (double)nanoseconds[requests / 2] / 1e3);
  printf(", \"p99\": %.3f", (double)nanoseconds[requests - 1 - requests / 100] / 1e3);
  printf(", \"p99.9\": %.3f, \"errors\": %zu}\n", (double)nanoseconds[requests - 1 - requests / 1000] / 1e3,
         atomic_load(&failures));
}

static void read_frame_file(struct frame* frame, const char* name) {
  FILE* file = fopen(name, "rb");
  if (file == NULL) {
    perror(name);
    exit(1);
  }
  frame->size = fread(frame->bytes, 1, sizeof frame->bytes, file);
  fclose(file);
}

int main(int argc, char** argv) {
  pthread_t clients[MAX_CLIENTS];
  const int count = argc == 7 ? atoi(argv[4]) : 0;
  if (count < 1 || count > MAX_CLIENTS) {
    fputs("usage: load PORT REQUEST REPLY CLIENTS SECONDS REQUESTS\n", stderr);
    return 1;
  }
  server.sin_port = htons((uint16_t)atoi(argv[1]));
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  read_frame_file(&request, argv[2]);
  read_frame_file(&expected, argv[3]);
  most = strtoul(argv[6], NULL, 10);
  nanoseconds = calloc(most, sizeof *nanoseconds);
  if (nanoseconds == NULL) {
    perror("calloc");
    return 1;
  }
  const uint64_t start = now();
  end = start + (uint64_t)(atof(argv[5]) * 1e9);
  for (int i = 0; i < count; ++i) {
    if (pthread_create(&clients[i], NULL, run_client, NULL) != 0) {
      fputs("a thread cannot be started\n", stderr);
      return 1;
    }
  }
  for (int i = 0; i < count; ++i) {
    pthread_join(clients[i], NULL);
  }
  const double seconds = (double)(now() - start) / 1e9;
  const size_t requests = atomic_load(&begun) < most ? atomic_load(&begun) : most;
  if (requests == 0) {
    fputs("no time for a request\n", stderr);
    return 1;
  }
  print_results(requests, seconds);
  return atomic_load(&failures) > 0;
}
