// Runs one of the service's main paths again and again, for instructions.py to count what it takes.
//   main_paths              prints what the program is made of, and then the paths, a line each
//   main_paths PATH COUNT

#include <gnu/libc-version.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "AccessToken.h"
#include "Base64.h"
#include "json/Texts.h"
#include "json/json.h"
#include "log/Destination.h"
#include "logging/logging.h"
#include "util/JsonMembers.h"

namespace {

using namespace velo::ssoService;

constexpr const char* LOG_SOURCE = "main_paths";
constexpr std::size_t KIB = 1024;

struct Path {
  const char* name;
  std::function<void(std::size_t count)> run;
};

/// Makes the compiler believe that somebody looks at the value.
template <typename T>
void use(const T& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

template <typename Operation>
void repeat(std::size_t count, Operation operation) {
  for (std::size_t done = 0; done < count; ++done) {
    use(operation());
  }
}

std::string textNamed(const char* name) {
  for (const Text& text : texts()) {
    if (std::strcmp(text.name, name) == 0) {
      return text.make();
    }
  }
  std::abort();
}

std::string token() {
  return json::jobject::parse(tokenReply(KIB))["access_token"].as_string();
}

Path parsing(const char* name, std::string (*make)()) {
  return {name, [make](std::size_t count) { repeat(count, [text = make()] { return json::jobject::parse(text); }); }};
}

/// What SsoApiRequests.cpp does with a request for a token and with the token.
std::string readRequest(const std::string& request) {
  const json::jobject document = json::jobject::parse(request);
  if (!hasString(document, "request") || document["request"].as_string() != "token" || !hasString(document, "scope")) {
    std::abort();
  }
  return document["scope"].as_string();
}

std::string writeReply(const std::string& text) {
  json::jobject reply;
  reply["status"] = "ok";
  reply["token"] = text;
  return reply.as_string();
}

const std::vector<Path> PATHS = {
    parsing("jobject::parse, sample configuration", [] { return textNamed("sample configuration"); }),
    parsing("jobject::parse, token reply of 1 KiB", [] { return tokenReply(KIB); }),
    parsing("jobject::parse, OpenID configuration of 4 KiB", [] { return discoveryDocument(4 * KIB); }),
    {"jobject::as_string, token reply of 1 KiB",
     [](std::size_t count) {
       repeat(count, [document = json::jobject::parse(tokenReply(KIB))] { return document.as_string(); });
     }},
    {"json::decode_string, token",
     [](std::size_t count) {
       repeat(count, [text = json::escape_string(token().c_str())] { return json::decode_string(text.c_str()); });
     }},
    {"json::escape_string, token",
     [](std::size_t count) { repeat(count, [text = token()] { return json::escape_string(text.c_str()); }); }},
    {"request read",
     [](std::size_t count) { repeat(count, [request = textNamed("request")] { return readRequest(request); }); }},
    {"token reply written", [](std::size_t count) { repeat(count, [text = token()] { return writeReply(text); }); }},
    {"AccessToken, token reply of 1 KiB",
     [](std::size_t count) { repeat(count, [reply = tokenReply(KIB)] { return AccessToken(reply); }); }},
    {"base64Decode, 4 KiB",
     [](std::size_t count) { repeat(count, [text = std::string(4 * KIB, 'x')] { return base64Decode(text); }); }},
    {"log call that its level drops",
     [](std::size_t count) {
       const FileDestination file;
       repeat(count, [request = textNamed("request")] {
         LOG_DEBUG("SSO API Client request %s", request.c_str());
         return 0;
       });
     }},
    {"log line of a request, to a file",
     [](std::size_t count) {
       const FileDestination file;
       repeat(count, [request = textNamed("request")] {
         LOG_INFO("SSO API Client request %s", request.c_str());
         return 0;
       });
     }},
    {"log line of a token reply, to a file",
     [](std::size_t count) {
       const FileDestination file;
       repeat(count, [reply = writeReply(token())] {
         LOG_INFO("Sending json token reply %s", reply.c_str());
         return 0;
       });
     }},
};

void list() {
#ifdef __clang__
  constexpr const char* COMPILER = "clang++";
#else
  constexpr const char* COMPILER = "g++";
#endif
  std::printf("%s %s, libstdc++ %d, glibc %s\n", COMPILER, __VERSION__, __GLIBCXX__, gnu_get_libc_version());
  for (const Path& path : PATHS) {
    std::puts(path.name);
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count == 1) {
    list();
    return EXIT_SUCCESS;
  }
  for (const Path& path : PATHS) {
    if (count == 3 && std::strcmp(path.name, arguments[1]) == 0) {
      path.run(std::strtoul(arguments[2], nullptr, 10));
      return EXIT_SUCCESS;
    }
  }
  static_cast<void>(std::fprintf(stderr, "Usage: %s [PATH COUNT]\n", arguments[0]));
  return EXIT_FAILURE;
}
