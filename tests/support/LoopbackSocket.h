#pragma once

#include "util/Descriptor.h"

namespace test {

/// A TCP socket that is bound to an ephemeral port of 127.0.0.1. It does not listen yet.
velo::ssoService::Descriptor bindLoopback();

/// The port that a socket is bound to.
int portOf(const velo::ssoService::Descriptor& socket);

}  // namespace test
