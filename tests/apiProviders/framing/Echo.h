#pragma once

#include <functional>
#include <string>
#include <vector>

namespace test {

/// Stands in the place of requests and replies while its scope lasts: records each request and replies with it, or with
/// what the test says. One at a time; it has to outlive the servers that use it.
class Echo {
 public:
  using Answer = std::function<std::string(const std::string& request)>;

  Echo();
  ~Echo();
  Echo(const Echo&) = delete;
  Echo& operator=(const Echo&) = delete;

  /// What replies from now on, on the server's thread, up to the server's end: it had better not refer to what is gone
  /// by then.
  void answer(Answer function);

  /// The requests so far.
  std::vector<std::string> requests() const;
};

}  // namespace test
