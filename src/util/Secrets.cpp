#include "util/Secrets.h"

#include <openssl/crypto.h>

namespace velo::ssoService {

void wipe(std::string& text) {
  text.resize(text.capacity());  // what a longer text has left behind the end goes too
  OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

}  // namespace velo::ssoService
