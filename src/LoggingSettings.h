#pragma once

#include <string>

namespace velo::ssoService {

/// Starts the log as sso.log_level and sso.log_path of the configuration file say. Where they cannot be read it starts
/// on standard output at level debug, logs the reason and returns false.
bool readLoggingSettings(const std::string& configPath);

}  // namespace velo::ssoService
