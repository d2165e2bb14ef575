#pragma once

#include <exception>
#include <string>
#include <utility>

namespace velo::ssoService {

/// A failure of discovery, the token client or the manager; what() is the message. Thrown by value.
class SsoException : public std::exception {
 public:
  explicit SsoException(std::string text) : message(std::move(text)) {}
  const char* what() const noexcept override { return message.c_str(); }

 private:
  std::string message;
};

}  // namespace velo::ssoService
