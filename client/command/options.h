#ifndef SSO_CLIENT_OPTIONS_H
#define SSO_CLIENT_OPTIONS_H

#include <stdbool.h>

#include "request.h"

/* What the command is to do. */
struct options {
  const struct request* request;
  const char* scope; /* an argument of the command; a null pointer for requests without one */
  int port;
  int timeout_ms;
  bool json;
};

/* Reads the command line, the environment and the configuration file. Ends the process after --help and --version, and
 * with a message and EXIT_USAGE when something is wrong. */
struct options read_options(int argc, char** argv);

#endif
