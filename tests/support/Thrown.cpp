#include "support/Thrown.h"

#include <exception>

#include "KCException.h"
#include "SsoException.h"

namespace test {

std::string thrownBy(const std::function<void()>& action) {
  try {
    action();
  } catch (const velo::ssoService::SsoException& thrown) {
    return std::string("SsoException: ") + thrown.what();
  } catch (const velo::ssoService::KCException& thrown) {
    return std::string("KCException: ") + thrown.what();
  } catch (const std::exception& thrown) {
    return std::string("std::exception: ") + thrown.what();
  }
  return "nothing";
}

}  // namespace test
