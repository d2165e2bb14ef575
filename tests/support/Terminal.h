#pragma once

#include <functional>
#include <string>

namespace test {

/// Runs an action in a child process that has a terminal of its own, and gives what appeared on that terminal; what the
/// child writes to its standard output does not. Throws when the child does not end in time, as one that asks the user
/// for something. To be called while the process has one thread.
std::string shownOnTerminal(const std::function<void()>& action);

}  // namespace test
