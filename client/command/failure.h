#ifndef SSO_CLIENT_FAILURE_H
#define SSO_CLIENT_FAILURE_H

/* The command's exit statuses. */
enum exit_status {
  EXIT_DONE = 0,
  EXIT_LOCAL_FAILURE = 1, /* the result could not be written, or memory ran out */
  EXIT_USAGE = 2,
  EXIT_CANNOT_CONNECT = 3,
  EXIT_TIMED_OUT = 4,
  EXIT_REFUSED = 5,
  EXIT_MALFORMED_REPLY = 6,
  EXIT_CONNECTION_CLOSED = 7
};

/* Writes "sso-client: MESSAGE" to standard error, with "?" in the place of control characters, and ends the process. */
_Noreturn void fail(enum exit_status status, const char* format, ...) __attribute__((format(printf, 2, 3)));

#endif
