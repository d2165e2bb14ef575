#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// A text that all libraries read. None has an escaped slash or a \u escape, which this library's reader refuses or
/// drops.
struct Text {
  const char* name;
  std::string (*make)();
  bool deep;  ///< so deep that a reader that recurses runs out of stack
};

const std::vector<Text>& texts();

/// A token reply of exactly so many bytes, which have to be 200 at least.
std::string tokenReply(std::size_t size);

/// What an identity provider publishes about itself, of about so many bytes, which have to be 2,000 at least.
std::string discoveryDocument(std::size_t size);

/// An object with so many keys, "key-000000" and on, and numbers.
std::string ascendingKeys(std::size_t count);
