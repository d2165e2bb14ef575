#include "log/Destination.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "logging/logging.h"

namespace {

void check(bool done, const char* what) {
  if (!done) {
    throw std::runtime_error(what);
  }
}

}  // namespace

FileDestination::FileDestination() : folder(std::filesystem::temp_directory_path() / "log-benchmark-XXXXXX") {
  check(mkdtemp(folder.data()) != nullptr, "no temporary folder");
  rival = open((folder + "/rival").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  check(rival >= 0, "no file for the rival");
  check(log_init((folder + "/log").c_str(), LOG_LEVEL_INFO, 1) == 0, "no log file");
}

FileDestination::~FileDestination() {
  log_set_level(LOG_LEVEL_OFF);
  close(rival);
  std::filesystem::remove_all(folder);
}

NullDestination::NullDestination() : standardOutput(dup(STDOUT_FILENO)) {
  std::fflush(stdout);  // what waits there is not for /dev/null
  rival = open("/dev/null", O_WRONLY | O_CLOEXEC);
  check(standardOutput >= 0 && rival >= 0 && dup2(rival, STDOUT_FILENO) >= 0, "no way to /dev/null");
  check(log_init(nullptr, LOG_LEVEL_INFO, 1) == 0, "no log");
}

NullDestination::~NullDestination() {
  log_set_level(LOG_LEVEL_OFF);
  dup2(standardOutput, STDOUT_FILENO);
  close(standardOutput);
  close(rival);
}
