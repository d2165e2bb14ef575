#include "failure.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

/* Keeps a message on its line, and what a terminal obeys out of it: texts of other programs stand in some. The control
 * characters U+0080 to U+009F are two bytes of UTF-8. */
static void hide_control_characters(char* text) {
  for (; *text != '\0'; ++text) {
    const unsigned char byte = (unsigned char)text[0];
    const unsigned char next = (unsigned char)text[1];
    if (byte < 0x20 || byte == 0x7f) {
      text[0] = '?';
    } else if (byte == 0xc2 && next >= 0x80 && next <= 0x9f) {
      text[0] = text[1] = '?';
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
  (void)fprintf(stderr, "sso-client: %s\n", length >= 0 ? message : "out of memory");
  exit((int)status);
}
