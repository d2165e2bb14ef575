#pragma once

#include <netinet/in.h>

namespace velo::ssoService {

/// The address 127.0.0.1 with this port, taken as a 16-bit number.
sockaddr_in loopbackAddress(int port);

}  // namespace velo::ssoService
