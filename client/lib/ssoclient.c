#include "ssoclient.h"

#include <stdbool.h>
#include <stdlib.h>
#include <string.h>

#include "exchange.h"
#include "reply.h"

#define MAX_PORT 65535

static const char token_request_begin[] = "{\"request\":\"token\",\"scope\":\"";
static const char token_request_end[] = "\"}";

static enum ssoclient_status ask(int port, const char* request, int timeout_ms, enum ssoclient_result wanted,
                                 char** text) {
  if (!text) {
    return SSOCLIENT_INVALID_ARGUMENT;
  }
  *text = NULL;
  if (port < 1 || port > MAX_PORT || timeout_ms < 1) {
    return SSOCLIENT_INVALID_ARGUMENT;
  }
  struct ssoclient_bytes reply;
  enum ssoclient_status status = ssoclient_exchange(port, request, strlen(request), timeout_ms, &reply);
  if (status == SSOCLIENT_OK) {
    status = ssoclient_read_reply(reply.data, reply.length, wanted, text);
    ssoclient_release(&reply);
  }
  return status;
}

/* Writes the scope as the text of a JSON string, each byte as one or two. False when it is no scope. "/" stays as it
 * is: the service does not read "\/". */
static bool append_scope(const char* scope, char* request) {
  size_t length = 0;
  for (; scope[length] != '\0'; ++length) {
    const unsigned char byte = (unsigned char)scope[length];
    if (length == SSOCLIENT_MAX_SCOPE_BYTES || byte < 0x20 || byte == 0x7f) {
      return false;
    }
    if (byte == '"' || byte == '\\') {
      *request++ = '\\';
    }
    *request++ = scope[length];
  }
  memcpy(request, token_request_end, sizeof token_request_end);
  return length > 0;
}

enum ssoclient_status ssoclient_get_token(int port, const char* scope, int timeout_ms, char** text) {
  char request[sizeof token_request_begin + (size_t)2 * SSOCLIENT_MAX_SCOPE_BYTES + sizeof token_request_end];
  memcpy(request, token_request_begin, sizeof token_request_begin);
  if (!scope || !append_scope(scope, request + strlen(request))) {
    if (text) {
      *text = NULL;
    }
    return SSOCLIENT_INVALID_ARGUMENT;
  }
  return ask(port, request, timeout_ms, SSOCLIENT_RESULT_TOKEN, text);
}

enum ssoclient_status ssoclient_get_discovery_data(int port, int timeout_ms, char** text) {
  return ask(port, "{\"request\":\"data\"}", timeout_ms, SSOCLIENT_RESULT_DISCOVERY_DATA, text);
}

enum ssoclient_status ssoclient_get_certificate_id(int port, int timeout_ms, char** text) {
  return ask(port, "{\"request\":\"certificate_id\"}", timeout_ms, SSOCLIENT_RESULT_CERTIFICATE_ID, text);
}

enum ssoclient_status ssoclient_reset(int port, int timeout_ms, char** text) {
  return ask(port, "{\"request\":\"reset\"}", timeout_ms, SSOCLIENT_RESULT_NONE, text);
}

void ssoclient_free(char* text) {
  if (text) {
    explicit_bzero(text, strlen(text));
    free(text);
  }
}

const char* ssoclient_status_text(enum ssoclient_status status) {
  switch (status) {
    case SSOCLIENT_OK:
      return "done";
    case SSOCLIENT_INVALID_ARGUMENT:
      return "invalid argument";
    case SSOCLIENT_CANNOT_CONNECT:
      return "cannot connect";
    case SSOCLIENT_TIMED_OUT:
      return "timed out";
    case SSOCLIENT_CONNECTION_CLOSED:
      return "connection closed before the reply was complete";
    case SSOCLIENT_MALFORMED_REPLY:
      return "malformed reply";
    case SSOCLIENT_REFUSED:
      return "refused by the service";
    case SSOCLIENT_OUT_OF_MEMORY:
      return "out of memory";
  }
  return "unknown status";
}
