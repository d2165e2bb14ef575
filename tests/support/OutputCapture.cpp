#include "support/OutputCapture.h"

#include <unistd.h>

#include <memory>
#include <stdexcept>

#include "util/Descriptor.h"

namespace test {
namespace {

struct FileCloser {
  void operator()(std::FILE* owned) const { static_cast<void>(std::fclose(owned)); }
};

/// Sends a stream to a file for as long as it lives.
class Redirection {
 public:
  Redirection(std::FILE* redirected, int target) : stream(redirected), original(::dup(fileno(redirected))) {
    static_cast<void>(std::fflush(stream));
    if (!original.isOpen() || ::dup2(target, fileno(stream)) < 0) {
      throw std::runtime_error("cannot redirect a stream");
    }
  }
  ~Redirection() {
    static_cast<void>(std::fflush(stream));
    static_cast<void>(::dup2(original.get(), fileno(stream)));
  }
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;

 private:
  std::FILE* stream;
  velo::ssoService::Descriptor original;
};

}  // namespace

std::string captured(std::FILE* stream, const std::function<void()>& action) {
  const std::unique_ptr<std::FILE, FileCloser> file(std::tmpfile());
  if (!file) {
    throw std::runtime_error("cannot make a temporary file");
  }
  {
    const Redirection redirection(stream, fileno(file.get()));
    action();
  }
  std::string text;
  char chunk[4096];
  std::rewind(file.get());
  for (std::size_t count = 0; (count = std::fread(chunk, 1, sizeof chunk, file.get())) > 0;) {
    text.append(chunk, count);
  }
  return text;
}

}  // namespace test
