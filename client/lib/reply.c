#include "reply.h"

#include <stdbool.h>
#include <stdlib.h>
#include <string.h>

#include "json.h"

/* A member that may stand in a reply once. */
static bool find_member(struct ssoclient_json reply, const char* name, struct ssoclient_json* value) {
  return ssoclient_json_member(reply, name, value) == 1;
}

static enum ssoclient_status take_string(struct ssoclient_json reply, const char* name, char** text) {
  struct ssoclient_json value;
  if (!find_member(reply, name, &value) || !ssoclient_json_is_string(value)) {
    return SSOCLIENT_MALFORMED_REPLY;
  }
  const size_t size = (size_t)(value.end - value.begin);
  char* const decoded = malloc(size);
  if (!decoded) {
    return SSOCLIENT_OUT_OF_MEMORY;
  }
  if (!ssoclient_json_decode(value, decoded)) {
    explicit_bzero(decoded, size);
    free(decoded);
    return SSOCLIENT_MALFORMED_REPLY;
  }
  *text = decoded;
  return SSOCLIENT_OK;
}

/* A token or an id, which is never empty (RFC 6749 appendix A.12): whoever takes an empty one goes on without any. */
static enum ssoclient_status take_value(struct ssoclient_json reply, const char* name, char** text) {
  const enum ssoclient_status status = take_string(reply, name, text);
  if (status == SSOCLIENT_OK && **text == '\0') {
    free(*text);
    *text = NULL;
    return SSOCLIENT_MALFORMED_REPLY;
  }
  return status;
}

static enum ssoclient_status take_object(struct ssoclient_json reply, const char* name, char** text) {
  struct ssoclient_json value;
  if (!find_member(reply, name, &value) || !ssoclient_json_is_object(value)) {
    return SSOCLIENT_MALFORMED_REPLY;
  }
  *text = strndup(value.begin, (size_t)(value.end - value.begin));
  return *text ? SSOCLIENT_OK : SSOCLIENT_OUT_OF_MEMORY;
}

static enum ssoclient_status take_result(struct ssoclient_json reply, enum ssoclient_result wanted, char** text) {
  switch (wanted) {
    case SSOCLIENT_RESULT_NONE:
      return SSOCLIENT_OK;
    case SSOCLIENT_RESULT_TOKEN:
      return take_value(reply, "token", text);
    case SSOCLIENT_RESULT_CERTIFICATE_ID:
      return take_value(reply, "certificate_id", text);
    case SSOCLIENT_RESULT_DISCOVERY_DATA:
      return take_object(reply, "discovery_data", text);
  }
  return SSOCLIENT_MALFORMED_REPLY;
}

enum ssoclient_status ssoclient_read_reply(const char* payload, size_t length, enum ssoclient_result wanted,
                                           char** text) {
  struct ssoclient_json reply;
  struct ssoclient_json status;
  *text = NULL;
  /* A C string cannot hold a NUL, and no reply of the service does. */
  if (memchr(payload, '\0', length)) {
    return SSOCLIENT_MALFORMED_REPLY;
  }
  const char* rest;
  const enum ssoclient_status parsed = ssoclient_json_parse(payload, length, &reply, &rest);
  if (parsed != SSOCLIENT_OK) {
    return parsed;
  }
  if (rest != payload + length || !find_member(reply, "status", &status) || !ssoclient_json_is_string(status)) {
    return SSOCLIENT_MALFORMED_REPLY;
  }
  if (ssoclient_json_equals(status, "ok")) {
    return take_result(reply, wanted, text);
  }
  if (!ssoclient_json_equals(status, "error")) {
    return SSOCLIENT_MALFORMED_REPLY;
  }
  const enum ssoclient_status taken = take_string(reply, "message", text);
  return taken == SSOCLIENT_OK ? SSOCLIENT_REFUSED : taken;
}
