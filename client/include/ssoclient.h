#ifndef SSOCLIENT_H
#define SSOCLIENT_H

/* Asks the SSO Discovery Service on this device for tokens and data, over its port on 127.0.0.1.
 *
 * Each function opens a connection, sends one request, takes one reply and closes the connection. It returns within its
 * time limit whatever the other side does. All functions may be called from any thread at any time: the library keeps
 * nothing between calls, raises no signal (a lost connection gives no SIGPIPE), and hands none of its descriptors to
 * programs that are executed. A thread must not be cancelled (pthread_cancel) while it is in a call. */

#ifdef __cplusplus
extern "C" {
#endif

/* How a call ended. The values stay what they are in later versions, which may add further ones. */
enum ssoclient_status {
  SSOCLIENT_OK = 0,
  SSOCLIENT_INVALID_ARGUMENT = 1,  /* an argument is out of its range; nothing was sent */
  SSOCLIENT_CANNOT_CONNECT = 2,    /* connect(2) or socket(2) failed; errno tells why, such as ECONNREFUSED */
  SSOCLIENT_TIMED_OUT = 3,         /* the time limit passed before the reply was complete */
  SSOCLIENT_CONNECTION_CLOSED = 4, /* the connection ended or broke before the reply was complete */
  SSOCLIENT_MALFORMED_REPLY = 5,   /* too long, or not a reply of the service to this request */
  SSOCLIENT_REFUSED = 6,           /* the service answered with an error and a message */
  SSOCLIENT_OUT_OF_MEMORY = 7
};

/* The longest scope, and the longest reply, that is taken. A longer reply is a malformed one. */
#define SSOCLIENT_MAX_SCOPE_BYTES 4096
#define SSOCLIENT_MAX_REPLY_BYTES (1024 * 1024)

/* Arguments that all calls have:
 *
 *   port         1 to 65535: one of the service's API ports
 *   timeout_ms   1 or more: the time for the whole call, in milliseconds. A token that has to be fetched first can take
 *                the service a minute, and requests of other programs come before.
 *   text         where to put what comes back. It is always set: with SSOCLIENT_OK to the result, with
 *                SSOCLIENT_REFUSED to the service's message, otherwise to a null pointer. The text ends with a NUL and
 *                holds no other. It is the caller's, who gives it to ssoclient_free. */

/* An OAuth 2.0 access token for a scope (RFC 6749 section 3.3): 1 to SSOCLIENT_MAX_SCOPE_BYTES bytes, none of them a
 * control character. The service hands the scope on as it is, so what has a meaning in a URL-encoded form has to be
 * percent-encoded: two scopes are "telemetry%20update". */
enum ssoclient_status ssoclient_get_token(int port, const char* scope, int timeout_ms, char** text);

/* The discovery data: a JSON object, byte by byte as the service sent it. */
enum ssoclient_status ssoclient_get_discovery_data(int port, int timeout_ms, char** text);

/* The device's id, from its certificate. */
enum ssoclient_status ssoclient_get_certificate_id(int port, int timeout_ms, char** text);

/* Has the service drop its tokens and discovery data and ask the cloud again. With SSOCLIENT_OK, text is a null
 * pointer. */
enum ssoclient_status ssoclient_reset(int port, int timeout_ms, char** text);

/* Overwrites the text and frees it. Takes a null pointer as well. */
void ssoclient_free(char* text);

/* What a status means, in English, such as "timed out". The text is the library's and stays valid. */
const char* ssoclient_status_text(enum ssoclient_status status);

#ifdef __cplusplus
}
#endif

#endif
