#ifndef SSO_CLIENT_REQUEST_H
#define SSO_CLIENT_REQUEST_H

#include <stdbool.h>

#include "ssoclient.h"

/* One thing that the command can ask the service. */
struct request {
  const char* name;
  bool takes_scope;
  const char* result_key; /* the result's name in the service's reply; a null pointer where there is no result */
  enum ssoclient_status (*ask)(int port, const char* scope, int timeout_ms, char** text);
};

/* The request of this name, or a null pointer. */
const struct request* find_request(const char* name);

/* Writes what `ping` or another request has brought to standard output, plainly or as a JSON object that says the same
 * as the service's reply. False when that failed; errno tells why. */
bool print_result(const struct request* request, const char* text, bool json);

/* What there is to say before the service's message when it refuses the request. */
const char* refusal_text(const struct request* request);

#endif
