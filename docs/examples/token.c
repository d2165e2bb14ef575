/* Prints an access token for a scope:  token PORT SCOPE */

#include <ssoclient.h>
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv) {
  if (argc != 3) {
    fputs("usage: token PORT SCOPE\n", stderr);
    return 2;
  }
  char* text;
  const enum ssoclient_status status = ssoclient_get_token(atoi(argv[1]), argv[2], 120 * 1000, &text);
  if (status == SSOCLIENT_OK) {
    puts(text);
  } else {
    fprintf(stderr, "token: %s\n", text ? text : ssoclient_status_text(status));
  }
  ssoclient_free(text);
  return status == SSOCLIENT_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}
