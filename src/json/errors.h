#pragma once

#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

namespace json {

/// A text is not what it has to be; what() says which rule it breaks.
class parsing_error : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

/// A key is absent, or a keyed access was made on an array; what() is the key.
class invalid_key : public std::exception {
 public:
  explicit invalid_key(std::string key) : key_(std::move(key)) {}
  const char* what() const noexcept override { return key_.c_str(); }

 private:
  std::string key_;
};

}  // namespace json
