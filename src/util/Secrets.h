#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <string>
#include <utility>

namespace velo::ssoService {

/// Overwrites a text's bytes, then empties it: assigning an empty text alone would leave them in memory.
void wipe(std::string& text);

/// Makes room for that many bytes, and more when there was room for some, so that growing step by step costs little. A
/// text that grows by itself leaves copies behind; here the old place is wiped.
void growWiped(std::string& text, std::size_t bytes);

/// From now on OpenSSL overwrites what it frees: it leaves the decoded form of a private key that it reads in memory
/// otherwise. To be called before any other use of OpenSSL, which would make it void.
void wipeMemoryOfOpenSsl();

/// Overwrites, when its scope ends, the stack below, where calls that have returned left what they worked with.
class StackWiper {
 public:
  StackWiper() = default;
  ~StackWiper();
  StackWiper(const StackWiper&) = delete;
  StackWiper& operator=(const StackWiper&) = delete;
};

/// Bytes that are wiped when their scope ends.
template <std::size_t SIZE>
struct SecretBytes {
  SecretBytes() = default;
  ~SecretBytes() { OPENSSL_cleanse(bytes, SIZE); }
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;

  char bytes[SIZE] = {};
};

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
