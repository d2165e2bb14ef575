#ifndef SSOCLIENT_REPLY_H
#define SSOCLIENT_REPLY_H

#include <stddef.h>

#include "ssoclient.h"

/* Where a successful reply holds its result. */
enum ssoclient_result {
  SSOCLIENT_RESULT_NONE,
  SSOCLIENT_RESULT_TOKEN,          /* a string, given decoded */
  SSOCLIENT_RESULT_CERTIFICATE_ID, /* a string, given decoded */
  SSOCLIENT_RESULT_DISCOVERY_DATA  /* an object, given as it stands */
};

/* Takes the result or the service's message from a reply. The text is the caller's, who gives it to ssoclient_free; it
 * is a null pointer where there is none.
 * SSOCLIENT_OK, SSOCLIENT_REFUSED, SSOCLIENT_MALFORMED_REPLY or SSOCLIENT_OUT_OF_MEMORY. */
enum ssoclient_status ssoclient_read_reply(const char* payload, size_t length, enum ssoclient_result wanted,
                                           char** text);

#endif
