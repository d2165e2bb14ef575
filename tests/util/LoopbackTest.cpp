#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "util/Loopback.h"

namespace {

TEST(Loopback, AddressIsThisHostsWithThePortIn16Bits) {
  struct Row {
    int port;
    int used;
  };
  for (const Row row :
       {Row{0, 0}, Row{1, 1}, Row{8080, 8080}, Row{65535, 65535}, Row{65536, 0}, Row{65537, 1}, Row{-1, 65535}}) {
    const sockaddr_in address = velo::ssoService::loopbackAddress(row.port);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(ntohl(address.sin_addr.s_addr), 0x7F000001U);
    EXPECT_EQ(ntohs(address.sin_port), row.used) << row.port;
    EXPECT_TRUE(
        std::all_of(address.sin_zero, address.sin_zero + sizeof address.sin_zero, [](auto byte) { return byte == 0; }));
  }
}

}  // namespace
