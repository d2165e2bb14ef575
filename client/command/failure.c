#include "failure.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

_Noreturn void fail(enum exit_status status, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  fputs("sso-client: ", stderr);
  vfprintf(stderr, format, arguments);
  fputs("\n", stderr);
  va_end(arguments);
  exit(status);
}
