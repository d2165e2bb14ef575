#pragma once

#include <cstddef>

namespace velo::ssoService {

/// Stack of each thread but the main one, in bytes. What the threads touch is in docs/performance.md; the rest is for
/// name service modules, which run on the threads that libcurl starts for look-ups.
constexpr std::size_t THREAD_STACK_BYTES = std::size_t{256} * 1024;

/// Gives every thread that is started later, by a library too, a stack of that size instead of the limit that the
/// process was started with (8 MiB, usually), which a 32-bit address space or locked memory feels. Where thread-local
/// storage leaves too little of it, stacks are two, four, ... times as large. For the main thread, before any other.
void limitThreadStacks();

}  // namespace velo::ssoService
