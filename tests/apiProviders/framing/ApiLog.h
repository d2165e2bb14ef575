#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace test {

using Lines = std::vector<std::string>;

/// Messages as the log shows them for the local API.
inline Lines apiLines(Lines messages) {
  for (std::string& message : messages) {
    message.insert(0, "apiProviders/SsoApiSocketProvider: ");
  }
  return messages;
}

inline Lines operator+(Lines first, const Lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

/// What a successful set-up logs.
inline Lines setupLines() {
  return apiLines(
      {"SSO API Socket successfully created", "SSO API Socket successfully binded", "SSO API Server listening"});
}

/// What a connection logs up to the point where its request is handled.
inline Lines requestLines(const std::string& request) {
  return apiLines({"SSO API server accepted the client",
                   "SSO API request message size: " + std::to_string(request.size()),
                   "SSO API received request " + request, "SSO API Client request " + request});
}

}  // namespace test
