#pragma once

#include <cstdio>
#include <functional>
#include <string>

namespace test {

/// What the action writes to stdout or stderr, which is redirected to a file meanwhile (a failure that the action
/// reports would be captured as well). For one thread at a time.
std::string captured(std::FILE* stream, const std::function<void()>& action);

}  // namespace test
