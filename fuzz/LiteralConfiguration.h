#pragma once

#include <optional>
#include <string>
#include <vector>

namespace fuzz {

/// What a configuration leads to by the rules for it, worked out step by step.
struct ConfigurationOutcome {
  bool isAccepted = false;
  std::vector<std::string> lines;      ///< of the log, each as "level text"
  std::vector<std::string> providers;  ///< of the API, each as "PORT MILLISECONDS"
  std::string url;
  std::string certificateFile;        ///< of a provider that reads files
  std::optional<int> keyServicePort;  ///< of one that asks the key service
};

/// The logging settings: what the log shows of their reading.
std::vector<std::string> readLoggingLiterally(const std::string& path, const std::string* text);

/// The rest. There is no text when the file cannot be read.
ConfigurationOutcome readConfigurationLiterally(const std::string& path, const std::string* text,
                                                const std::string& environment);

}  // namespace fuzz
