#pragma once

#include <exception>
#include <string>
#include <utility>

namespace velo::ssoService {

/// A failure of keys, certificates or their providers; what() is the message. Thrown by value.
class KCException : public std::exception {
 public:
  explicit KCException(std::string text) : message(std::move(text)) {}
  const char* what() const noexcept override { return message.c_str(); }

 private:
  std::string message;
};

}  // namespace velo::ssoService
