#pragma once

#include <functional>
#include <string>

namespace test {

/// What an action throws, as "SsoException: text", "KCException: text" or "std::exception: text" (for every other class
/// derived from that); "nothing" when it returns. Anything else passes through.
std::string thrownBy(const std::function<void()>& action);

}  // namespace test
