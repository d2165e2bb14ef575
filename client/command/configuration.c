#include "configuration.h"

#include <errno.h>
#include <fcntl.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "failure.h"
#include "json.h"

#define FIRST_BYTES ((size_t)4 * 1024)
#define MAX_FILE_BYTES ((size_t)16 * 1024 * 1024)

static _Noreturn void out_of_memory(void) {
  fail(EXIT_LOCAL_FAILURE, "out of memory");
}

static _Noreturn void cannot_read(const char* path) {
  fail(EXIT_USAGE, "configuration file %s cannot be read: %s", path, strerror(errno));
}

/* A named pipe without a writer is not waited for: it reads as empty. */
static int open_file(const char* path) {
  const int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file < 0 || fcntl(file, F_SETFL, 0) != 0) {
    cannot_read(path);
  }
  return file;
}

/* Doubles the room for a file's text. */
static char* grow(char* text, size_t* capacity, const char* path) {
  *capacity = text ? 2 * *capacity : FIRST_BYTES;
  if (*capacity > MAX_FILE_BYTES) {
    fail(EXIT_USAGE, "configuration file %s is too long", path);
  }
  text = realloc(text, *capacity);
  if (!text) {
    out_of_memory();
  }
  return text;
}

/* The whole file, for the caller to free. */
static char* read_file(const char* path, size_t* length) {
  const int file = open_file(path);
  char* text = NULL;
  size_t capacity = 0;
  ssize_t count;
  *length = 0;
  do {
    if (*length == capacity) {
      text = grow(text, &capacity, path);
    }
    count = read(file, text + *length, capacity - *length);
    *length += count > 0 ? (size_t)count : 0;
  } while (count > 0);
  if (count < 0) {
    cannot_read(path);
  }
  close(file);
  return text;
}

/* The text of sso.api_providers[0].port. */
static bool find_port(struct ssoclient_json document, struct ssoclient_json* port) {
  struct ssoclient_json sso;
  struct ssoclient_json providers;
  struct ssoclient_json first;
  return ssoclient_json_member(document, "sso", &sso) && ssoclient_json_member(sso, "api_providers", &providers) &&
         ssoclient_json_first_element(providers, &first) && ssoclient_json_member(first, "port", port) &&
         ssoclient_json_is_number(*port);
}

char* read_configured_port(const char* path) {
  size_t length;
  char* const text = read_file(path, &length);
  struct ssoclient_json document;
  struct ssoclient_json port;
  const char* rest; /* of no interest: the service does not read it either */
  if (ssoclient_json_parse(text, length, &document, &rest) != SSOCLIENT_OK) {
    fail(EXIT_USAGE, "configuration file %s is not valid JSON", path);
  }
  if (!find_port(document, &port)) {
    fail(EXIT_USAGE, "configuration file %s has no number sso.api_providers[0].port", path);
  }
  char* const number = strndup(port.begin, strspn(port.begin, "-0123456789"));
  free(text);
  if (!number) {
    out_of_memory();
  }
  return number;
}
