#include "util/Loopback.h"

#include <arpa/inet.h>

#include <cstdint>

namespace velo::ssoService {

sockaddr_in loopbackAddress(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::inet_addr("127.0.0.1");
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

}  // namespace velo::ssoService
