#pragma once

#include <string>
#include <utility>

namespace velo::ssoService {

/// Overwrites a text's bytes, then empties it: assigning an empty text alone would leave them in memory.
void wipe(std::string& text);

/// From now on OpenSSL overwrites what it frees: it leaves the decoded form of a private key that it reads in memory
/// otherwise. To be called before any other use of OpenSSL, which would make it void.
void wipeMemoryOfOpenSsl();

/// A secret text of its own that is wiped when its scope ends.
class SecretText {
 public:
  explicit SecretText(std::string secret) : text(std::move(secret)) {}
  ~SecretText() { wipe(text); }
  SecretText(const SecretText&) = delete;
  SecretText& operator=(const SecretText&) = delete;

  const std::string& get() const { return text; }

 private:
  std::string text;
};

}  // namespace velo::ssoService
