#pragma once

#include <functional>

namespace test {

/// Runs the action in a child of this process, for what is set for a whole process: signals, above all. Returns the
/// child's wait status: 0 when the action returned and reported no failure (failures are printed as ever). A child that
/// takes longer than a minute is ended by SIGALRM.
int runInChild(const std::function<void()>& action);

}  // namespace test
