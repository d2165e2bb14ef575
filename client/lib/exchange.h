#ifndef SSOCLIENT_EXCHANGE_H
#define SSOCLIENT_EXCHANGE_H

#include <stddef.h>

#include "ssoclient.h"

/* Bytes that are wiped before they are freed. */
struct ssoclient_bytes {
  char* data;
  size_t length;
};

void ssoclient_release(struct ssoclient_bytes* bytes);

/* Sends one frame with this payload to the port on 127.0.0.1 and receives one frame. On SSOCLIENT_OK the reply's
 * payload is the caller's, who releases it. Bytes behind the frame are ignored.
 * Every error of enum ssoclient_status but SSOCLIENT_INVALID_ARGUMENT and SSOCLIENT_REFUSED; errno tells why with
 * SSOCLIENT_CANNOT_CONNECT. */
enum ssoclient_status ssoclient_exchange(int port, const char* payload, size_t length, int timeout_ms,
                                         struct ssoclient_bytes* reply);

#endif
