#pragma once

#include <cstddef>
#include <functional>

namespace test {

/// The stack of such a thread: a handful of calls' worth, so that a call a level of nesting would overflow it.
constexpr std::size_t SMALL_STACK_BYTES = 64 * 1024;

/// Runs the action on a thread with a small stack and waits for its end. Throws what the action throws.
void runOnSmallStack(const std::function<void()>& action);

}  // namespace test
