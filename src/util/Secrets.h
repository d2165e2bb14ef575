#pragma once

#include <string>
#include <utility>

namespace velo::ssoService {

/// Overwrites a text's bytes, then empties it: assigning an empty text alone would leave them in memory.
void wipe(std::string& text);

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
