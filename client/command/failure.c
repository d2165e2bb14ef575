#include "failure.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

/* Keeps a message on its line, and what a terminal obeys out of it: texts of other programs stand in some. */
static void hide_control_characters(char* text) {
  for (; *text != '\0'; ++text) {
    if ((unsigned char)*text < 0x20 || *text == 0x7f) {
      *text = '?';
    }
  }
}

_Noreturn void fail(enum exit_status status, const char* format, ...) {
  char* message;
  va_list arguments;
  va_start(arguments, format);
  const int length = vasprintf(&message, format, arguments);
  va_end(arguments);
  if (length >= 0) {
    hide_control_characters(message);
  }
  fprintf(stderr, "sso-client: %s\n", length >= 0 ? message : "out of memory");
  exit(status);
}
