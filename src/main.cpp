#include <openssl/crypto.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "DiscoverySSOManager.h"
#include "LoggingSettings.h"
#include "logging/logging.h"
#include "util/Descriptor.h"
#include "util/Heap.h"
#include "util/NoDestructor.h"
#include "util/Secrets.h"
#include "util/Signals.h"
#include "util/ThreadStacks.h"

namespace {

constexpr const char* LOG_SOURCE = "DiscoverySSOManager";

}  // namespace

int main(int argc, char** argv) {
  using namespace velo::ssoService;
  if (argc < 2) {
    static_cast<void>(std::fprintf(stderr, "Usage: %s <json_config_file>\n", argc > 0 ? argv[0] : ""));
    return EXIT_FAILURE;
  }
  const std::string configPath = argv[1];
  occupyStandardDescriptors();
  takeSignals();
  limitHeap();
  limitThreadStacks();
  wipeMemoryOfOpenSsl();
  // API threads may be inside OpenSSL when the process ends: nothing may be taken from under them.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  readLoggingSettings(configPath);
  const char* variable = std::getenv("CLOUD_ENV");
  const std::string cloudEnv = variable != nullptr ? variable : "";
  LOG_INFO("CLOUD_ENV: %s", cloudEnv.c_str());

  static NoDestructor<DiscoverySSOManager> manager(configPath, cloudEnv);
  manager->run();
  LOG_INFO("SSO Discovery Service terminated");
  manager->shutDown();
  return EXIT_SUCCESS;
}
