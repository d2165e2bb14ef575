#pragma once

#include <string>

#include "support/ScriptedServer.h"

namespace test {

/// The local key service. A request is "privatekey" or "certificate".
class KeyService : public ScriptedServer {
 public:
  KeyService();

  /// Gives these texts from now on.
  void serve(const std::string& privateKey, const std::string& certificate);
};

/// A length as the key service sends it: four bytes, big-endian.
std::string lengthPrefix(unsigned long length);

/// A text behind its length.
std::string frame(const std::string& text);

}  // namespace test
