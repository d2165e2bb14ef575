#ifndef SSO_CLIENT_CONFIGURATION_H
#define SSO_CLIENT_CONFIGURATION_H

/* The first API port in the service's configuration file, as the service reads it: the digits before a point or an
 * exponent, unchecked. The caller frees it. Ends the process with a message and EXIT_USAGE when the file cannot be read
 * or has no such number. */
char* read_configured_port(const char* path);

#endif
