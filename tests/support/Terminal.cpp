#include "support/Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <stdexcept>

#include "support/Await.h"
#include "util/Descriptor.h"

namespace test {
namespace {

using velo::ssoService::Descriptor;

[[noreturn]] void runInTerminal(const std::string& name, const std::function<void()>& action) {
  ::setsid();
  const Descriptor terminal(::open(name.c_str(), O_RDWR | O_CLOEXEC));  // becomes the child's controlling one
  ::ioctl(terminal.get(), TIOCSCTTY, 0);
  try {
    action();
  } catch (const std::exception&) {
    // only the terminal is looked at
  }
  ::_exit(0);
}

}  // namespace

std::string shownOnTerminal(const std::function<void()>& action) {
  const Descriptor screen(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!screen.isOpen() || ::grantpt(screen.get()) != 0 || ::unlockpt(screen.get()) != 0) {
    throw std::runtime_error("no pseudo terminal");
  }
  const std::string name = ::ptsname(screen.get());
  const Descriptor keptOpen(::open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));  // what is shown outlives the child
  const pid_t child = ::fork();
  if (child == 0) {
    runInTerminal(name, action);
  }
  const bool hasEnded = await([child] { return ::waitpid(child, nullptr, WNOHANG) != 0; });
  if (!hasEnded) {
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
  }
  std::string shown;
  pollfd watched{screen.get(), POLLIN, 0};
  while (::poll(&watched, 1, 0) > 0) {
    char buffer[256];
    const ssize_t count = ::read(screen.get(), buffer, sizeof buffer);
    if (count <= 0) {
      break;
    }
    shown.append(buffer, static_cast<std::size_t>(count));
  }
  if (!hasEnded) {
    throw std::runtime_error("the child waits for the user, having shown: " + shown);
  }
  return shown;
}

}  // namespace test
