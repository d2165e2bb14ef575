#include "util/Secrets.h"

#include <openssl/crypto.h>

namespace velo::ssoService {

void wipe(std::string& text) {
  OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

}  // namespace velo::ssoService
