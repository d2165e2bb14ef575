#include "support/KeyService.h"

#include <cstring>

namespace test {
namespace {

bool isWholeRequest(const std::string& received) {
  const char* word = received.rfind('p', 0) == 0 ? "privatekey" : "certificate";
  return received.size() >= std::strlen(word);
}

}  // namespace

KeyService::KeyService() : ScriptedServer(isWholeRequest) {
}

void KeyService::serve(const std::string& privateKey, const std::string& certificate) {
  answer([privateKey, certificate](const std::string& request) {
    return Script{send(frame(request == "privatekey" ? privateKey : certificate))};
  });
}

std::string lengthPrefix(unsigned long length) {
  std::string prefix;
  for (const unsigned shift : {24U, 16U, 8U, 0U}) {
    prefix += static_cast<char>((length >> shift) & 0xFFU);
  }
  return prefix;
}

std::string frame(const std::string& text) {
  return lengthPrefix(text.size()) + text;
}

}  // namespace test
