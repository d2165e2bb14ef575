#include "options.h"

#include <getopt.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "configuration.h"
#include "failure.h"

#define DIGITS "0123456789"
#define MAX_PORT 65535
#define MAX_TIMEOUT_SECONDS 86400

static const char usage[] =
    "usage: sso-client [OPTION]... REQUEST\n"
    "Asks the SSO Discovery Service on this device.\n"
    "\n"
    "requests:\n"
    "  token SCOPE         print an access token for the scope\n"
    "  data                print the discovery data, a JSON object\n"
    "  certificate-id      print the device's id\n"
    "  reset               have the service drop its tokens and ask the cloud again\n"
    "  ping                print \"ready\" if the service answers and is ready\n"
    "\n"
    "options:\n"
    "  --port N            the service's port; without it and --config, SSO_PORT in the environment says\n"
    "  --config FILE       the service's configuration file: take its first API port\n"
    "  --timeout SECONDS   the time for the exchange with the service, fractions allowed (120)\n"
    "  --json              print the result as a JSON object\n"
    "  --help              print this and exit\n"
    "  --version           print the version and exit\n"
    "\n"
    "exit status:\n"
    "  0 done, 1 the result could not be written or memory ran out, 2 usage, 3 cannot connect, 4 timed out,\n"
    "  5 refused by the service, 6 malformed reply, 7 connection closed before the reply was complete\n";

static _Noreturn void print_and_exit(const char* text) {
  if (fputs(text, stdout) == EOF || fflush(stdout) != 0) {
    fail(EXIT_LOCAL_FAILURE, "cannot write to standard output");
  }
  exit(EXIT_DONE);
}

static int read_port(const char* text, const char* source) {
  const bool has_digits_only = text[strspn(text, DIGITS)] == '\0';
  const long port = has_digits_only ? strtol(text, NULL, 10) : 0;
  if (port < 1 || port > MAX_PORT) {
    fail(EXIT_USAGE, "%s: '%s' is no port (1 to %d)", source, text, MAX_PORT);
  }
  return (int)port;
}

static int read_timeout_ms(const char* text) {
  char* end;
  const double seconds = strtod(text, &end);
  const bool is_decimal = *end == '\0' && text[strspn(text, DIGITS ".")] == '\0';
  if (!is_decimal || seconds < 0.001 || seconds > MAX_TIMEOUT_SECONDS) {
    fail(EXIT_USAGE, "--timeout: '%s' is no time in seconds (0.001 to %d)", text, MAX_TIMEOUT_SECONDS);
  }
  return (int)(seconds * 1000 + 0.5);
}

static void check_scope(const char* scope) {
  if (*scope == '\0') {
    fail(EXIT_USAGE, "the scope is empty");
  }
  if (strlen(scope) > SSOCLIENT_MAX_SCOPE_BYTES) {
    fail(EXIT_USAGE, "the scope is longer than %d bytes", SSOCLIENT_MAX_SCOPE_BYTES);
  }
  for (; *scope != '\0'; ++scope) {
    if ((unsigned char)*scope < 0x20 || *scope == 0x7f) {
      fail(EXIT_USAGE, "the scope holds a control character");
    }
  }
}

static int choose_port(const char* port, const char* config) {
  const char* const environment = getenv("SSO_PORT");
  if (port && config) {
    fail(EXIT_USAGE, "--port and --config exclude each other");
  }
  if (port) {
    return read_port(port, "--port");
  }
  if (config) {
    char* const configured = read_configured_port(config);
    const int number = read_port(configured, config);
    free(configured);
    return number;
  }
  if (!environment) {
    fail(EXIT_USAGE, "which port? Give --port, --config or SSO_PORT in the environment");
  }
  return read_port(environment, "SSO_PORT");
}

/* The request and its argument from what is left of the command line. */
static void read_request(char** words, struct options* options) {
  if (!words[0]) {
    fail(EXIT_USAGE, "no request given; see sso-client --help");
  }
  options->request = find_request(words[0]);
  if (!options->request) {
    fail(EXIT_USAGE, "'%s' is no request; see sso-client --help", words[0]);
  }
  ++words;
  if (options->request->takes_scope) {
    if (!words[0]) {
      fail(EXIT_USAGE, "which scope? Give it behind 'token'");
    }
    check_scope(words[0]);
    options->scope = *words++;
  }
  if (words[0]) {
    fail(EXIT_USAGE, "'%s' is one argument too many", words[0]);
  }
}

enum { PORT = 1, CONFIG, TIMEOUT, JSON, HELP, VERSION };
static const struct option option_names[] = {
    {"port", required_argument, NULL, PORT},
    {"config", required_argument, NULL, CONFIG},
    {"timeout", required_argument, NULL, TIMEOUT},
    {"json", no_argument, NULL, JSON},
    {"help", no_argument, NULL, HELP},
    {"version", no_argument, NULL, VERSION},
    {NULL, 0, NULL, 0},
};

/* Says which option getopt_long has not taken: a letter, which it may have found inside a word, or a whole word. */
static _Noreturn void fail_on_option(char** argv) {
  if (optopt < 0 || optopt > VERSION) {
    fail(EXIT_USAGE, "'-%c' is no option; see sso-client --help", optopt);
  }
  fail(EXIT_USAGE, "'%s' is no option; see sso-client --help", argv[optind - 1]);
}

struct options read_options(int argc, char** argv) {
  struct options options = {.timeout_ms = 120 * 1000}; /* a token may have to be fetched, behind other requests */
  const char* port = NULL;
  const char* config = NULL;
  int option;
  while ((option = getopt_long(argc, argv, ":", option_names, NULL)) != -1) {
    switch (option) {
      case PORT:
        port = optarg;
        break;
      case CONFIG:
        config = optarg;
        break;
      case TIMEOUT:
        options.timeout_ms = read_timeout_ms(optarg);
        break;
      case JSON:
        options.json = true;
        break;
      case HELP:
        print_and_exit(usage);
      case VERSION:
        print_and_exit("sso-client " SSOCLIENT_VERSION "\n");
      case ':':
        fail(EXIT_USAGE, "%s needs a value", argv[optind - 1]);
      default:
        fail_on_option(argv);
    }
  }
  read_request(argv + optind, &options);
  options.port = choose_port(port, config);
  return options;
}
