#pragma once

namespace velo::ssoService {

/// A way in for local programs, served on a thread of its own.
class SsoApiProvider {
 public:
  SsoApiProvider() = default;
  SsoApiProvider(const SsoApiProvider&) = delete;
  SsoApiProvider& operator=(const SsoApiProvider&) = delete;
  virtual ~SsoApiProvider() = default;

  /// Serves until stop is called.
  virtual void serve() = 0;

  /// Asks the provider to finish; callable from any thread.
  virtual void stop() = 0;
};

}  // namespace velo::ssoService
