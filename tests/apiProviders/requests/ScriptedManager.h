#pragma once

#include <functional>
#include <string>
#include <vector>

namespace test {

/// What the manager's operations do in this program, where its own sources are not linked. Set it before a request is
/// made and look at the calls afterwards.
struct ManagerScript {
  std::function<std::string(const std::string& scope)> getToken = [](const std::string&) { return "abc.def.ghi"; };
  std::function<std::string()> getDiscoveryData = [] { return R"({"config":{}})"; };
  std::function<std::string()> getCertificateId = [] { return "device-0001"; };
  std::function<bool()> reset = [] { return true; };
};

/// Sets what the operations do and forgets the calls so far.
void scriptManager(ManagerScript script);

/// The calls in order, as "getToken(device)".
std::vector<std::string> managerCalls();

}  // namespace test
