#include "request.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>

static enum ssoclient_status ask_data(int port, const char* scope, int timeout_ms, char** text) {
  (void)scope;
  return ssoclient_get_discovery_data(port, timeout_ms, text);
}

static enum ssoclient_status ask_certificate_id(int port, const char* scope, int timeout_ms, char** text) {
  (void)scope;
  return ssoclient_get_certificate_id(port, timeout_ms, text);
}

static enum ssoclient_status ask_reset(int port, const char* scope, int timeout_ms, char** text) {
  (void)scope;
  return ssoclient_reset(port, timeout_ms, text);
}

enum { TOKEN, DATA, CERTIFICATE_ID, RESET, PING, REQUEST_COUNT };

static const struct request requests[REQUEST_COUNT] = {
    [TOKEN] = {"token", true, "token", ssoclient_get_token},
    [DATA] = {"data", false, "discovery_data", ask_data},
    [CERTIFICATE_ID] = {"certificate-id", false, "certificate_id", ask_certificate_id},
    [RESET] = {"reset", false, NULL, ask_reset},
    /* The certificate id changes nothing, and the service gives it only when it is ready. */
    [PING] = {"ping", false, "certificate_id", ask_certificate_id},
};

const struct request* find_request(const char* name) {
  for (size_t i = 0; i < REQUEST_COUNT; ++i) {
    if (strcmp(requests[i].name, name) == 0) {
      return &requests[i];
    }
  }
  return NULL;
}

static void print_json_string(const char* text) {
  putchar('"');
  for (; *text != '\0'; ++text) {
    const unsigned char byte = (unsigned char)*text;
    if (byte < 0x20) {
      printf("\\u%04x", byte);
    } else {
      printf(byte == '"' || byte == '\\' ? "\\%c" : "%c", byte);
    }
  }
  putchar('"');
}

static void print_json(const struct request* request, const char* text) {
  (void)fputs("{\"status\":\"ok\"", stdout);
  if (request->result_key) {
    printf(",\"%s\":", request->result_key);
    if (request == &requests[DATA]) {
      (void)fputs(text, stdout);
    } else {
      print_json_string(text);
    }
  }
  puts("}");
}

bool print_result(const struct request* request, const char* text, bool json) {
  if (json) {
    print_json(request, text);
  } else if (request == &requests[PING]) {
    puts("ready");
  } else if (text) {
    puts(text);
  }
  return fflush(stdout) == 0 && !ferror(stdout);
}

const char* refusal_text(const struct request* request) {
  return request == &requests[PING] ? "the service answers, but is not ready" : "refused by the service";
}
