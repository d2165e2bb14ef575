#pragma once

#include <string>

namespace velo::ssoService {

/// Reads a whole file, byte for byte. False when it cannot be opened; a file that cannot be read further counts as
/// ended there (a directory is empty).
bool readWholeFile(const std::string& path, std::string& text);

/// Replaces a file's contents, creating the file if need be. A file that cannot be written is left as far as it got.
void writeWholeFile(const std::string& path, const std::string& text);

}  // namespace velo::ssoService
