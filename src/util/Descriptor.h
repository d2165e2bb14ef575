#pragma once

#include <unistd.h>

#include <utility>

namespace velo::ssoService {

/// Owns a file descriptor and closes it. For one thread at a time.
class Descriptor {
 public:
  static constexpr int NONE = -1;

  explicit Descriptor(int owned = NONE) : descriptor(owned) {}
  Descriptor(Descriptor&& other) noexcept : descriptor(std::exchange(other.descriptor, NONE)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    reset(std::exchange(other.descriptor, NONE));
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { reset(); }

  int get() const { return descriptor; }
  bool isOpen() const { return descriptor >= 0; }

  /// Gives the descriptor up: it is the caller's from now on.
  int release() { return std::exchange(descriptor, NONE); }

  /// Closes the descriptor and takes another one.
  void reset(int owned = NONE) {
    if (isOpen() && descriptor != owned) {
      static_cast<void>(::close(descriptor));  // nothing is left to be written that a failure could lose
    }
    descriptor = owned;
  }

 private:
  int descriptor;
};

/// Opens /dev/null in the place of the standard descriptors that the process was started without, so that no socket or
/// file gets their numbers and with them what is printed.
void occupyStandardDescriptors();

}  // namespace velo::ssoService
