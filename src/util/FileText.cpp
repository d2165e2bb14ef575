#include "util/FileText.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>

#include "util/Descriptor.h"
#include "util/Secrets.h"

namespace velo::ssoService {

bool readWholeFile(const std::string& path, std::string& text) {
  text.clear();
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file.isOpen()) {
    return false;
  }
  SecretBytes<4096> chunk;  // a key may pass through
  struct stat status {};
  const bool sizeIsKnown = ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
  // A text that grows would leave copies of a key behind.
  text.reserve(
      std::clamp(sizeIsKnown ? static_cast<std::size_t>(status.st_size) : 0, sizeof chunk.bytes, MAX_FILE_BYTES));
  ssize_t count = 0;
  while (text.size() < MAX_FILE_BYTES && (count = ::read(file.get(), chunk.bytes, sizeof chunk.bytes)) > 0) {
    text.append(chunk.bytes, static_cast<std::size_t>(count));
  }
  return true;
}

void writeWholeFile(const std::string& path, const std::string& text) {
  const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, S_IRUSR | S_IWUSR));
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = ::write(file.get(), text.data() + written, text.size() - written);
    if (count <= 0) {
      return;
    }
    written += static_cast<std::size_t>(count);
  }
}

}  // namespace velo::ssoService
