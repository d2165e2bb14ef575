#pragma once

#include "support/TestIdentity.h"

namespace fuzz {

// Fixed identities for tests, which no device has: what an input leads to must not change from run to run.

const test::TestIdentity& deviceIdentity();   ///< RSA-2048, /CN=device-0001
const test::TestIdentity& signingIdentity();  ///< RSA-1024, /CN=device-0001: signs in a fifth of the time

}  // namespace fuzz
