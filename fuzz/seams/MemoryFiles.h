#pragma once

#include <map>
#include <string>

namespace fuzz {

/// Stands in the place of the file system: the files by their names.
std::map<std::string, std::string>& memoryFiles();

/// How often a file was written since the last call.
int takeFileWrites();

}  // namespace fuzz
