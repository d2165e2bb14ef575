/* sso-client: asks the SSO Discovery Service one thing and prints the answer. */

#include <errno.h>
#include <string.h>

#include "failure.h"
#include "options.h"
#include "request.h"
#include "ssoclient.h"

static void check(enum ssoclient_status status, const struct options* options, const char* text) {
  const double seconds = options->timeout_ms / 1000.0;
  switch (status) {
    case SSOCLIENT_OK:
      return;
    case SSOCLIENT_INVALID_ARGUMENT:
      fail(EXIT_USAGE, "%s", ssoclient_status_text(status));
    case SSOCLIENT_CANNOT_CONNECT:
      fail(EXIT_CANNOT_CONNECT, "cannot connect to port %d: %s", options->port, strerror(errno));
    case SSOCLIENT_TIMED_OUT:
      fail(EXIT_TIMED_OUT, "timed out: no reply from port %d within %g seconds", options->port, seconds);
    case SSOCLIENT_CONNECTION_CLOSED:
      fail(EXIT_CONNECTION_CLOSED, "port %d closed the connection before its reply was complete", options->port);
    case SSOCLIENT_MALFORMED_REPLY:
      fail(EXIT_MALFORMED_REPLY, "malformed reply from port %d: is it the service's?", options->port);
    case SSOCLIENT_REFUSED:
      fail(EXIT_REFUSED, "%s: %s", refusal_text(options->request), text);
    case SSOCLIENT_OUT_OF_MEMORY:
      fail(EXIT_LOCAL_FAILURE, "%s", ssoclient_status_text(status));
  }
}

int main(int argc, char** argv) {
  const struct options options = read_options(argc, argv);
  char* text;
  const enum ssoclient_status status = options.request->ask(options.port, options.scope, options.timeout_ms, &text);
  check(status, &options, text);
  if (!print_result(options.request, text, options.json)) {
    fail(EXIT_LOCAL_FAILURE, "cannot write the result: %s", strerror(errno));
  }
  ssoclient_free(text);
  return EXIT_DONE;
}
