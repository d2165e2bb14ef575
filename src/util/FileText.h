#pragma once

#include <cstddef>
#include <string>

namespace velo::ssoService {

/// As much of a file as is read: no configuration, key or reply comes near it, and a device node has no end.
constexpr std::size_t MAX_FILE_BYTES = std::size_t{16} * 1024 * 1024;

/// Reads a whole file, byte for byte. False when it cannot be opened; a file that cannot be read further counts as
/// ended there (a directory is empty). Neither function waits: a pipe without its other side must not hold the service
/// up.
bool readWholeFile(const std::string& path, std::string& text);

/// Replaces a file's contents, creating the file, which only its owner can read, if need be. A file that cannot be
/// written is left as far as it got.
void writeWholeFile(const std::string& path, const std::string& text);

}  // namespace velo::ssoService
