#include "util/Descriptor.h"

#include <fcntl.h>

namespace velo::ssoService {

void occupyStandardDescriptors() {
  int opened = Descriptor::NONE;
  do {
    opened = ::open("/dev/null", O_RDWR);
  } while (opened >= 0 && opened <= STDERR_FILENO);
  const Descriptor surplus(opened);
}

}  // namespace velo::ssoService
