/* Prints an access token for a scope:  token PORT SCOPE
 *
 *   cc token.c -o token $(pkg-config --cflags --libs ssoclient) */

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
  int exit_status = EXIT_FAILURE;
  if (status == SSOCLIENT_OK && puts(text) >= 0 && fflush(stdout) == 0) {
    exit_status = EXIT_SUCCESS;
  } else if (status == SSOCLIENT_OK) {
    perror("token");
  } else {
    fprintf(stderr, "token: %s\n", status == SSOCLIENT_REFUSED ? text : ssoclient_status_text(status));
  }
  ssoclient_free(text);
  return exit_status;
}
